#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kestrowan {

/// Watches the header lines of one transfer for what curl lets pass: heads that break off, that
/// never end, and lengths that mean nothing. Not thread-safe.
class CurlResponseHead {
 public:
  /// Takes one line, its end included, of the head with the status `status`. Throws
  /// `NSURLErrorCannotParseResponse` when the answer makes no sense.
  void add(std::string_view line, long status);
  /// Whether the head of the final answer has come to its end.
  bool isComplete() const { return complete_; }
  /// Whether only the end of the connection can tell where the body ends.
  bool leavesEndOpen() const { return complete_ && mayHaveBody_ && !contentLength_ && !chunked_; }

 private:
  void checkLength(std::string_view length);

  std::size_t bytes_ = 0;
  std::optional<std::string> contentLength_;
  bool chunked_ = false;
  bool mayHaveBody_ = false;
  bool complete_ = false;
};

}  // namespace kestrowan
