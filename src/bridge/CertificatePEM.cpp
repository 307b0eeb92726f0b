#include "bridge/CertificatePEM.h"

#include <string_view>
#include <utility>

namespace kestrowan::FPBridge {

namespace {

void removeEvery(std::string& text, std::string_view part) {
  std::string kept;
  kept.reserve(text.size());
  std::size_t start = 0;
  for (auto found = text.find(part); found != std::string::npos; found = text.find(part, start)) {
    kept.append(text, start, found - start);
    start = found + part.size();
  }
  kept.append(text, start);
  text = std::move(kept);
}

}  // namespace

std::optional<NSData> derFromPEM(std::string pem) {
  removeEvery(pem, "-----BEGIN CERTIFICATE-----");
  removeEvery(pem, "-----END CERTIFICATE-----");
  std::erase(pem, '\r');
  std::erase(pem, '\n');
  return dataFromBase64(pem);
}

}  // namespace kestrowan::FPBridge
