#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/foundation/FileContents.h"
#include "platform/foundation/NSError.h"

namespace kestrowan {

namespace {

constexpr std::size_t kLargestContents = 1 << 20;  // bytes

}  // namespace

NSData fileContents(const UniqueFd& file, const std::string& path) {
  struct stat status;
  if (::fstat(file.get(), &status) != 0) throw cocoaReadError(errno, path);
  if (!S_ISREG(status.st_mode)) throw cocoaReadError(EINVAL, path);
  if (static_cast<std::size_t>(status.st_size) > kLargestContents) {
    throw cocoaReadError(EFBIG, path);
  }
  // One byte more than allowed shows that the file has grown since its size was taken.
  NSData data(kLargestContents + 1, '\0');
  std::size_t length = 0;
  while (length < data.size()) {
    const auto count = ::read(file.get(), data.data() + length, data.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw cocoaReadError(errno, path);
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > kLargestContents) throw cocoaReadError(EFBIG, path);
  data.resize(length);
  return data;
}

}  // namespace kestrowan
