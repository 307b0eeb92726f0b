#include "platform/linux/CurlResponseHead.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

#include "platform/linux/CurlError.h"

namespace kestrowan {

namespace {

constexpr std::size_t kMostBytes = 256 * 1024;
constexpr std::string_view kOldVersion = "HTTP/1.0";
constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kLengthName = "Content-Length:";
constexpr std::string_view kCodingName = "Transfer-Encoding:";
constexpr std::string_view kTagName = "ETag:";
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

std::string inSmallLetters(std::string_view text) {
  std::string small(text);
  std::transform(small.begin(), small.end(), small.begin(), [](char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
  });
  return small;
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
  if (complete_) return;
  if (!trimmed(line).empty()) return addHeader(line);
  // Interim answers have heads of their own.
  complete_ = status >= 200 || status == kSwitchingProtocols;
  mayHaveBody_ = status != kNoContent && status != kNotModified;
  if (complete_) return;
  contentLength_.reset();
  coding_.reset();
  entityTag_.reset();
}

std::optional<std::int64_t> CurlResponseHead::length() const {
  if (!contentLength_ || coding_) return std::nullopt;
  return std::stoll(*contentLength_);
}

void CurlResponseHead::addHeader(std::string_view line) {
  if (hasName(line, "HTTP/")) {
    isOld_ = hasName(line, kOldVersion);
  } else if (hasName(line, kLengthName)) {
    checkLength(trimmed(line.substr(kLengthName.size())));
  } else if (hasName(line, kTagName)) {
    entityTag_ = std::string(trimmed(line.substr(kTagName.size())));
  } else if (hasName(line, kCodingName)) {
    auto coding = inSmallLetters(trimmed(line.substr(kCodingName.size())));
    // Several lines are one list, and a list is not one coding.
    coding_ = coding_ ? *coding_ + "," + coding : std::move(coding);
  }
}

void CurlResponseHead::checkLength(std::string_view length) {
  if (!isLength(length) || (contentLength_ && *contentLength_ != length)) {
    throw urlError(NSURLErrorCannotParseResponse, "not a length of content");
  }
  contentLength_ = length;
}

}  // namespace kestrowan
