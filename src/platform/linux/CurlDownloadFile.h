#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/OneShot.h"
#include "platform/base/UniqueFd.h"
#include "platform/linux/CurlBodySink.h"
#include "platform/network/NSURLSession.h"

namespace kestrowan {

/// A new file of mode 0600 in a directory, written from front to back, that vanishes unless it is
/// published. Where the file system can, it has no name until then, so that even a killed process
/// leaves nothing. Not thread-safe; every failure throws `NSError` of `NSURLErrorDomain`.
class CurlDownloadFile {
 public:
  /// Writing fails when less than `reservedCapacity` bytes are left of the disk, more or less.
  explicit CurlDownloadFile(std::string directory, std::int64_t reservedCapacity = 0);
  CurlDownloadFile(const CurlDownloadFile&) = delete;
  CurlDownloadFile& operator=(const CurlDownloadFile&) = delete;
  ~CurlDownloadFile();

  void write(std::string_view data);
  int descriptor() const { return fd_.get(); }
  /// Closes the file and leaves it to the caller under the returned path. Called at most once.
  std::string publish();

 private:
  void checkCapacity(std::size_t more);
  void link();

  std::string directory_;
  std::string path_;  // empty while the file has no name
  const std::int64_t reservedCapacity_;
  std::size_t unchecked_ = 0;
  UniqueFd fd_;
};

/// Stores the body in a file of the temporary directory and passes on its location.
class CurlDownloadSink : public CurlBodySink {
 public:
  using Result = OneShot<NSURLSessionDownload>;

  explicit CurlDownloadSink(std::shared_ptr<Result> result) : result_(std::move(result)) {}

  int descriptor() const override { return file_ ? file_->descriptor() : -1; }
  void open() override;
  bool write(std::string_view data) override;
  void finish(std::shared_ptr<const NSURLResponse> response) override;
  void fail(const NSError& error) noexcept override;

 private:
  std::shared_ptr<Result> result_;
  std::unique_ptr<CurlDownloadFile> file_;
};

}  // namespace kestrowan
