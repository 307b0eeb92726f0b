#include "platform/linux/CurlResponseHead.h"

#include <strings.h>

#include <charconv>
#include <cstdint>

#include "platform/linux/CurlError.h"

namespace kestrowan {

namespace {

constexpr std::size_t kMostBytes = 256 * 1024;
constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kLengthName = "Content-Length:";
constexpr std::string_view kCodingName = "Transfer-Encoding:";
constexpr long kSwitchingProtocols = 101;
constexpr long kNoContent = 204;
constexpr long kNotModified = 304;

bool hasName(std::string_view line, std::string_view name) {
  return line.size() >= name.size() && ::strncasecmp(line.data(), name.data(), name.size()) == 0;
}

std::string_view trimmed(std::string_view text) {
  const auto start = text.find_first_not_of(kBlanks);
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

bool isLength(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() && value >= 0;
}

}  // namespace

void CurlResponseHead::add(std::string_view line, long status) {
  bytes_ += line.size();
  if (bytes_ > kMostBytes) throw urlError(NSURLErrorCannotParseResponse, "too long a head");
  if (trimmed(line).empty()) {
    // Interim answers have heads of their own.
    complete_ = status >= 200 || status == kSwitchingProtocols;
    mayHaveBody_ = status != kNoContent && status != kNotModified;
    if (!complete_) contentLength_.reset();
  } else if (hasName(line, kLengthName)) {
    checkLength(trimmed(line.substr(kLengthName.size())));
  } else if (hasName(line, kCodingName)) {
    // Curl refuses codings other than those that have an end of their own.
    chunked_ = true;
  }
}

void CurlResponseHead::checkLength(std::string_view length) {
  if (!isLength(length) || (contentLength_ && *contentLength_ != length)) {
    throw urlError(NSURLErrorCannotParseResponse, "not a length of content");
  }
  contentLength_ = length;
}

}  // namespace kestrowan
