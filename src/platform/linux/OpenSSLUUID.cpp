#include <openssl/rand.h>

#include <array>

#include "platform/base/Fatal.h"
#include "platform/foundation/NSUUID.h"
#include "platform/linux/OpenSSLSetUp.h"

namespace kestrowan {

std::string newUUIDString() {
  constexpr char kHex[] = "0123456789ABCDEF";
  std::array<unsigned char, 16> bytes;
  if (!setUpOpenSSL() || RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    fatalError("the system has no random bytes");
  }
  bytes[6] = static_cast<unsigned char>(0x40 | (bytes[6] & 0x0F));
  bytes[8] = static_cast<unsigned char>(0x80 | (bytes[8] & 0x3F));
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 15];
  }
  return text;
}

}  // namespace kestrowan
