#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSURL.h"

namespace kestrowan {

/// A regular local file that is being sent: exactly as many bytes as it had when it was opened.
/// Not thread-safe. Failures throw `NSError` of `NSURLErrorDomain`.
class CurlUploadFile {
 public:
  /// Throws when `file` is absent, a directory, unreadable or no regular file.
  explicit CurlUploadFile(const NSURL& file);

  /// Bytes to send in all.
  std::int64_t size() const { return size_; }
  /// Reads the next 1…`capacity` bytes; 0 once `size` bytes were read. Throws
  /// `NSURLErrorRequestBodyStreamExhausted` when the file has become shorter.
  std::size_t read(char* buffer, std::size_t capacity);

 private:
  UniqueFd fd_;
  std::int64_t size_ = 0;
  std::int64_t offset_ = 0;
};

}  // namespace kestrowan
