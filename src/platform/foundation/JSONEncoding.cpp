#include "platform/foundation/JSONEncoding.h"

#include "platform/foundation/UTF8.h"

namespace kestrowan {

namespace {

struct Encoding {
  std::size_t unitSize;  // bytes
  bool bigEndian;
  std::size_t markSize;  // bytes
};

Encoding detected(std::string_view text) {
  using namespace std::string_view_literals;
  if (text.starts_with("\xEF\xBB\xBF")) return {1, false, 3};
  if (text.starts_with("\x00\x00\xFE\xFF"sv)) return {4, true, 4};
  if (text.starts_with("\xFF\xFE\x00\x00"sv)) return {4, false, 4};
  if (text.starts_with("\xFE\xFF")) return {2, true, 2};
  if (text.starts_with("\xFF\xFE")) return {2, false, 2};
  // JSON begins with ASCII characters, so zero bytes tell the rest.
  const auto isZero = [&](std::size_t index) { return index < text.size() && text[index] == 0; };
  if (isZero(0) && isZero(1) && isZero(2)) return {4, true, 0};
  if (isZero(1) && isZero(2) && isZero(3)) return {4, false, 0};
  if (isZero(0)) return {2, true, 0};
  if (isZero(1)) return {2, false, 0};
  return {1, false, 0};
}

char32_t unitAt(std::string_view text, std::size_t position, const Encoding& encoding) {
  char32_t unit = 0;
  for (std::size_t i = 0; i < encoding.unitSize; ++i) {
    const auto index = encoding.bigEndian ? i : encoding.unitSize - 1 - i;
    unit = unit << 8 | static_cast<unsigned char>(text[position + index]);
  }
  return unit;
}

bool isHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

std::optional<std::string> utf8FromJSONText(std::string_view text) {
  const auto encoding = detected(text);
  text.remove_prefix(encoding.markSize);
  if (encoding.unitSize == 1) return std::string(text);
  if (text.size() % encoding.unitSize != 0) return std::nullopt;
  std::string converted;
  converted.reserve(text.size());
  for (std::size_t position = 0; position < text.size(); position += encoding.unitSize) {
    auto unit = unitAt(text, position, encoding);
    if (encoding.unitSize == 2 && isHighSurrogate(unit)) {
      position += encoding.unitSize;
      if (position == text.size()) return std::nullopt;
      const auto low = unitAt(text, position, encoding);
      if (!isLowSurrogate(low)) return std::nullopt;
      unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }
    if (isHighSurrogate(unit) || isLowSurrogate(unit) || unit > 0x10FFFF) return std::nullopt;
    appendUTF8(converted, unit);
  }
  return converted;
}

}  // namespace kestrowan
