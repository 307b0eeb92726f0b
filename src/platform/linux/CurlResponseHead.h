#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrowan {

/// Watches the header lines of one transfer for what curl lets pass: heads that break off, that
/// never end, lengths that mean nothing and codings whose end is unknown. Not thread-safe.
class CurlResponseHead {
 public:
  /// Takes one line, its end included, of the head with the status `status`, or of what follows a
  /// chunked body, which is only counted. Throws `NSURLErrorCannotParseResponse` when a length
  /// makes no sense or all lines have more than 256 KiB.
  void add(std::string_view line, long status);
  /// Whether the head of the final answer has come to its end.
  bool isComplete() const { return complete_; }
  /// Whether the body has a transfer coding that is not `chunked` alone, so that nothing tells
  /// whether it is whole. A version before 1.1 has no codings.
  bool hasForeignCoding() const {
    return complete_ && mayHaveBody_ && coding_ && (coding_ != kChunked || isOld_);
  }
  /// In bytes, as it was announced for the body as it is transferred.
  std::optional<std::int64_t> length() const;
  /// As the server wrote it.
  const std::optional<std::string>& entityTag() const { return entityTag_; }
  /// Whether only the end of the connection can tell where the body ends.
  bool leavesEndOpen() const { return complete_ && mayHaveBody_ && !contentLength_ && !coding_; }

 private:
  static constexpr std::string_view kChunked = "chunked";

  void addHeader(std::string_view line);
  void checkLength(std::string_view length);

  std::size_t bytes_ = 0;
  std::optional<std::string> contentLength_;
  std::optional<std::string> coding_;  // all of them, in small letters
  std::optional<std::string> entityTag_;
  bool isOld_ = false;
  bool mayHaveBody_ = false;
  bool complete_ = false;
};

}  // namespace kestrowan
