#include <unicode/locid.h>
#include <unicode/unistr.h>
#include <unicode/unorm.h>

#include "platform/foundation/NSString.h"
#include "platform/foundation/UTF8.h"

namespace kestrowan {

namespace {

icu::UnicodeString unicodeString(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int>(text.size())));
}

char lowercaseASCII(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A'))
                                              : character;
}

}  // namespace

bool isEqualToString(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (isASCII(a) && isASCII(b)) return false;
  if (!isValidUTF8(a) || !isValidUTF8(b)) return false;
  const auto left = unicodeString(a);
  const auto right = unicodeString(b);
  UErrorCode status = U_ZERO_ERROR;
  const auto order = unorm_compare(left.getBuffer(), left.length(), right.getBuffer(),
                                   right.length(), U_FOLD_CASE_DEFAULT, &status);
  return U_SUCCESS(status) && order == 0;
}

std::string lowercaseString(std::string_view text) {
  std::string lower;
  if (isASCII(text) || !isValidUTF8(text)) {
    lower.reserve(text.size());
    for (const char character : text) lower += lowercaseASCII(character);
    return lower;
  }
  auto wide = unicodeString(text);
  wide.toLower(icu::Locale::getRoot()).toUTF8String(lower);
  return lower;
}

}  // namespace kestrowan
