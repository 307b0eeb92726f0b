// The bridge file: a configuration that was read can be written and read again.

#include "bridge/FPBridge.h"
#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSError.h"

using namespace kestrowan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    const auto config = FPBridge::Config::decode(fuzz::text(data, size));
    fuzz::require(FPBridge::Config::decode(config.encode()) == config, "a file comes back");
  } catch (const NSError& error) {
    fuzz::require(error.domain() == NSCocoaErrorDomain, "errors are of one domain");
  }
  return 0;
}
