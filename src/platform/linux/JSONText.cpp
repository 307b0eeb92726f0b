#include "platform/linux/JSONText.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "platform/foundation/WholeNumber.h"

namespace kestrowan {

namespace {

constexpr std::size_t kEscapeLength = 6;  // \uXXXX
constexpr std::string_view kHalfCharacter = "\\ufffd";
constexpr std::string_view kOtherNumber = "0.5";

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

std::string_view digitsOf(std::string_view text) {
  const auto end = std::find_if_not(text.begin(), text.end(), isDigit);
  return text.substr(0, static_cast<std::size_t>(end - text.begin()));
}

bool isNumber(std::string_view token) {
  if (token.starts_with('-')) token.remove_prefix(1);
  const auto whole = digitsOf(token);
  if (whole.empty() || (whole.size() > 1 && whole.front() == '0')) return false;
  token.remove_prefix(whole.size());
  if (token.starts_with('.')) {
    const auto fraction = digitsOf(token.substr(1));
    if (fraction.empty()) return false;
    token.remove_prefix(1 + fraction.size());
  }
  if (token.starts_with('e') || token.starts_with('E')) {
    token.remove_prefix(1);
    if (token.starts_with('+') || token.starts_with('-')) token.remove_prefix(1);
    const auto exponent = digitsOf(token);
    if (exponent.empty()) return false;
    token.remove_prefix(exponent.size());
  }
  return token.empty();
}

/// The code unit of an escape that `text` begins with.
std::optional<std::uint32_t> escapedUnit(std::string_view text) {
  if (text.size() < kEscapeLength || !text.starts_with("\\u")) return std::nullopt;
  std::uint32_t unit = 0;
  const char* const end = text.data() + kEscapeLength;
  const auto read = std::from_chars(text.data() + 2, end, unit, 16);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return unit;
}

bool isFirstHalf(std::uint32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isSecondHalf(std::uint32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

class Rewriter {
 public:
  explicit Rewriter(std::string_view json) : rest_(json) { result_.text.reserve(json.size()); }

  ReadableJSON rewritten() {
    while (!rest_.empty()) {
      if (rest_.front() == '"') {
        string();
      } else if (rest_.front() == '-' || isDigit(rest_.front())) {
        number();
      } else {
        copy(1);
      }
    }
    return std::move(result_);
  }

 private:
  void copy(std::size_t length) {
    length = std::min(length, rest_.size());
    result_.text += rest_.substr(0, length);
    rest_.remove_prefix(length);
  }

  void string() {
    copy(1);
    while (!rest_.empty() && rest_.front() != '"') {
      if (rest_.front() == '\\') {
        escape();
      } else {
        copy(1);
      }
    }
    copy(1);
    ++strings_;
  }

  void escape() {
    const auto unit = escapedUnit(rest_);
    if (!unit || (!isFirstHalf(*unit) && !isSecondHalf(*unit))) return copy(2);
    const auto next = escapedUnit(rest_.substr(kEscapeLength));
    if (isFirstHalf(*unit) && next && isSecondHalf(*next)) return copy(2 * kEscapeLength);
    result_.text += kHalfCharacter;
    rest_.remove_prefix(kEscapeLength);
    result_.brokenStrings.insert(strings_);
  }

  void number() {
    const auto end = std::min(rest_.find_first_not_of("0123456789+-.eE"), rest_.size());
    const auto token = rest_.substr(0, end);
    if (!isNumber(token)) return copy(end);
    if (const auto whole = wholeNumberFromJSONToken(token)) {
      result_.text += std::to_string(*whole);
    } else {
      result_.text += kOtherNumber;
    }
    rest_.remove_prefix(end);
  }

  std::string_view rest_;
  std::size_t strings_ = 0;
  ReadableJSON result_;
};

}  // namespace

ReadableJSON readableJSON(std::string_view json) {
  return Rewriter(json).rewritten();
}

}  // namespace kestrowan
