#include "platform/types/UTType.h"

#include "platform/foundation/NSString.h"
#include "platform/types/UTTypeTable.h"

namespace kestrowan {

namespace {

/// `bytes` in base 32, five bits a letter from the highest on, the last ones filled up with zeros.
std::string base32(std::string_view bytes) {
  constexpr std::string_view kLetters = "abcdefghkmnpqrstuvwxyz0123456789";
  std::string text;
  text.reserve((bytes.size() * 8 + 4) / 5);
  unsigned pending = 0;
  int pendingBits = 0;
  for (const char byte : bytes) {
    pending = (pending << 8 | static_cast<unsigned char>(byte)) & 0xFFFF;
    pendingBits += 8;
    while (pendingBits >= 5) {
      pendingBits -= 5;
      text += kLetters[pending >> pendingBits & 31];
    }
  }
  if (pendingBits > 0) text += kLetters[pending << (5 - pendingBits) & 31];
  return text;
}

/// A dynamic identifier carries what is known of the type: here the extension of a data file.
std::string dynamicTypeIdentifier(std::string_view extension) {
  return "dyn.a" + base32(std::string("?0=6:1=").append(extension));
}

}  // namespace

const UTType& UTType::folder() {
  static const UTType type("public.folder");
  return type;
}

const UTType& UTType::data() {
  static const UTType type("public.data");
  return type;
}

std::optional<UTType> UTType::type(std::string_view withFilenameExtension,
                                   const UTType& conformingTo) {
  if (withFilenameExtension.empty()) return std::nullopt;
  const auto extension = lowercaseString(withFilenameExtension);
  if (conformingTo == data()) {
    if (const auto declared = declaredTypeIdentifier(extension)) return UTType(*declared);
  }
  return UTType(dynamicTypeIdentifier(extension));
}

}  // namespace kestrowan
