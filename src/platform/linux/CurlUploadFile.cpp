#include "platform/linux/CurlUploadFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/linux/CurlError.h"

namespace kestrowan {

namespace {

NSError openError(int number) {
  const auto reason = std::generic_category().message(number);
  switch (number) {
    case EISDIR:
      return urlError(NSURLErrorFileIsDirectory, reason);
    case EACCES:
    case EPERM:
      return urlError(NSURLErrorNoPermissionsToReadFile, reason);
    default:
      return urlError(NSURLErrorFileDoesNotExist, reason);
  }
}

}  // namespace

CurlUploadFile::CurlUploadFile(const NSURL& file) {
  if (!file.isFileURL()) throw urlError(NSURLErrorBadURL);
  // The system would take the text up to there for the whole path.
  if (file.path().find('\0') != std::string::npos) throw openError(ENOENT);
  // Opening a pipe for reading would otherwise wait for somebody to write to it.
  fd_.reset(::open(file.path().c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd_) throw openError(errno);
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0) throw openError(errno);
  if (S_ISDIR(status.st_mode)) throw openError(EISDIR);
  if (!S_ISREG(status.st_mode)) {
    throw urlError(NSURLErrorFileDoesNotExist, "not a regular file");
  }
  size_ = status.st_size;
}

std::size_t CurlUploadFile::read(char* buffer, std::size_t capacity) {
  const auto wanted = std::min(capacity, static_cast<std::size_t>(size_ - offset_));
  if (wanted == 0) return 0;
  while (true) {
    const auto count = ::pread(fd_.get(), buffer, wanted, offset_);
    if (count > 0) {
      offset_ += count;
      return static_cast<std::size_t>(count);
    }
    if (count == 0) {
      throw urlError(NSURLErrorRequestBodyStreamExhausted, "the file became shorter");
    }
    if (errno != EINTR) {
      throw urlError(NSURLErrorRequestBodyStreamExhausted, std::generic_category().message(errno));
    }
  }
}

}  // namespace kestrowan
