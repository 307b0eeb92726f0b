// JSON: values come back, and records are read without harm.

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/JSONDecoder.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/NSError.h"

using namespace kestrowan;

namespace {

void readRecord(std::string_view text) {
  try {
    const KeyedDecodingContainer record(text);
    record.decodeString("user");
    record.decodeInt64("port");
  } catch (const NSError& error) {
    fuzz::require(error.domain() == NSCocoaErrorDomain, "errors are of one domain");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = fuzz::text(data, size);
  readRecord(text);
  if (const auto value = JSONValue::parse(text)) {
    const auto line = value->serialized();
    fuzz::require(line.find('\n') == std::string::npos, "a value is one line");
    fuzz::require(JSONValue::parse(line) == value, "a value comes back");
  }
  return 0;
}
