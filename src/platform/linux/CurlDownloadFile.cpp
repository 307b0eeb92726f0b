#include "platform/linux/CurlDownloadFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "platform/foundation/NSFileManager.h"
#include "platform/linux/CurlError.h"

namespace kestrowan {

namespace {

constexpr const char* kOwnDescriptors = "/proc/self/fd";
constexpr std::string_view kNameStart = "/kestrowan-download-";
constexpr mode_t kOwnerOnly = 0600;
constexpr int kLinkAttempts = 16;
constexpr std::size_t kCheckedBytes = std::size_t{4} << 20;

NSError fileError(NSURLErrorCode code, int number) {
  return urlError(code, std::generic_category().message(number));
}

std::string randomName() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  unsigned char bytes[12];
  if (getentropy(bytes, sizeof bytes) != 0) {
    throw fileError(NSURLErrorCannotCreateFile, errno);
  }
  std::string name;
  for (const auto byte : bytes) {
    name += kDigits[byte >> 4];
    name += kDigits[byte & 15];
  }
  return name;
}

}  // namespace

CurlDownloadFile::CurlDownloadFile(std::string directory, std::int64_t reservedCapacity)
    : directory_(std::move(directory)), reservedCapacity_(reservedCapacity) {
#ifdef O_TMPFILE
  // A nameless file gets its name through /proc.
  if (::access(kOwnDescriptors, X_OK) == 0)
    fd_.reset(::open(directory_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kOwnerOnly));
#endif
  if (fd_) {
    if (::fchmod(fd_.get(), kOwnerOnly) != 0) throw fileError(NSURLErrorCannotCreateFile, errno);
    return;
  }
  // Other errors than "cannot make nameless files" come again, with their own number.
  std::string path = directory_ + std::string(kNameStart) + "XXXXXX";
  fd_.reset(::mkostemp(path.data(), O_CLOEXEC));
  if (!fd_) throw fileError(NSURLErrorCannotCreateFile, errno);
  path_ = std::move(path);
}

CurlDownloadFile::~CurlDownloadFile() {
  if (!path_.empty()) ::unlink(path_.c_str());
}

/// A look at the disk once in a while, for a server that sends without end.
void CurlDownloadFile::checkCapacity(std::size_t more) {
  unchecked_ += more;
  if (reservedCapacity_ == 0 || unchecked_ < kCheckedBytes) return;
  unchecked_ = 0;
  struct statvfs disk;
  if (::fstatvfs(fd_.get(), &disk) != 0) return;
  const auto left = static_cast<std::int64_t>(disk.f_bavail * disk.f_frsize);
  if (left < reservedCapacity_) throw fileError(NSURLErrorCannotWriteToFile, ENOSPC);
}

void CurlDownloadFile::write(std::string_view data) {
  checkCapacity(data.size());
  while (!data.empty()) {
    const auto count = ::write(fd_.get(), data.data(), data.size());
    if (count > 0) {
      data.remove_prefix(static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      throw fileError(NSURLErrorCannotWriteToFile, count == 0 ? EIO : errno);
    }
  }
}

std::string CurlDownloadFile::publish() {
  if (path_.empty()) link();
  // Some file systems report only now that the data had no room.
  const int fd = fd_.release();
  if (::close(fd) != 0 && errno != EINTR) throw fileError(NSURLErrorCannotWriteToFile, errno);
  return std::exchange(path_, {});
}

void CurlDownloadFile::link() {
  const std::string self = std::string(kOwnDescriptors) + "/" + std::to_string(fd_.get());
  for (int attempt = 1;; ++attempt) {
    std::string path = directory_ + std::string(kNameStart) + randomName();
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      path_ = std::move(path);
      return;
    }
    if (errno != EEXIST || attempt == kLinkAttempts) {
      throw fileError(NSURLErrorCannotCreateFile, errno);
    }
  }
}

void CurlDownloadSink::open() {
  const auto files = NSFileManager::defaultManager();
  file_ = std::make_unique<CurlDownloadFile>(files->temporaryDirectory().path(),
                                             files->reservedCapacity());
}

bool CurlDownloadSink::write(std::string_view data) {
  file_->write(data);
  return true;
}

void CurlDownloadSink::finish(std::shared_ptr<const NSURLResponse> response) {
  const std::string path = file_->publish();
  result_->resolve({NSURL::fileURLWithPath(path), std::move(response)});
}

void CurlDownloadSink::fail(const NSError& error) noexcept {
  file_.reset();
  result_->reject(std::make_exception_ptr(error));
}

}  // namespace kestrowan
