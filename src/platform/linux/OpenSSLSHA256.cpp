#include <openssl/evp.h>

#include <array>

#include "platform/base/Fatal.h"
#include "platform/foundation/SHA256.h"
#include "platform/linux/OpenSSLSetUp.h"

namespace kestrowan {

std::string sha256Text(std::string_view bytes) {
  constexpr char kHex[] = "0123456789abcdef";
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned int size = 0;
  if (!setUpOpenSSL() ||
      EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    fatalError("the system has no SHA-256");
  }
  std::string text;
  text.reserve(std::size_t{size} * 2);
  for (unsigned int i = 0; i < size; ++i) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 15];
  }
  return text;
}

}  // namespace kestrowan
