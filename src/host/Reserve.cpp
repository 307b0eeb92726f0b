#include "host/Reserve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mount/LocalFiles.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

Reserve::Reserve(const std::string& directory) : path_(directory + "/reserve") {}

Reserve::~Reserve() {
  hold();
}

void Reserve::giveUp() {
  ::unlink(path_.c_str());
}

void Reserve::hold() {
  struct stat status;
  if (::lstat(path_.c_str(), &status) == 0) return;
  const UniqueFd file(
      ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
  if (file && ::posix_fallocate(file.get(), 0, kSize) != 0) ::unlink(path_.c_str());
}

}  // namespace kestrowan::host
