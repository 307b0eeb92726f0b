// Certificates in PEM form: what decodes decodes again to the same bytes without its armour.

#include "bridge/CertificatePEM.h"
#include "fuzz/FuzzTarget.h"

using namespace kestrowan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto pem = fuzz::text(data, size);
  if (const auto der = FPBridge::derFromPEM(std::string(pem))) {
    const auto wrapped = "-----BEGIN CERTIFICATE-----\r\n" + base64EncodedString(*der) +
                         "\n-----END CERTIFICATE-----\n";
    fuzz::require(FPBridge::derFromPEM(wrapped) == der, "a certificate comes back");
  }
  return 0;
}
