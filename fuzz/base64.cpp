// Base64: bytes come back, and text that decodes is made of letters and padding only.

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSData.h"

using namespace kestrowan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = fuzz::text(data, size);
  fuzz::require(dataFromBase64(base64EncodedString(bytes)) == bytes, "bytes come back");
  if (const auto decoded = dataFromBase64(bytes)) {
    const auto again = base64EncodedString(*decoded);
    fuzz::require(again.size() == bytes.size(), "nothing in the text was skipped");
    // Only the last letter may differ, in bits that stand for nothing.
    const auto exact = bytes.size() < 4 ? 0 : bytes.size() - 4;
    fuzz::require(again.substr(0, exact) == bytes.substr(0, exact), "the text comes back");
  }
  return 0;
}
