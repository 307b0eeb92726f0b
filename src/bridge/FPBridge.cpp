#include "bridge/FPBridge.h"

#include <algorithm>

#include "platform/foundation/JSONDecoder.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan::FPBridge {

std::optional<std::string_view> Config::CodingKeys::key(std::string_view stringValue) {
  const auto* found = std::find(allCases.begin(), allCases.end(), stringValue);
  if (found == allCases.end()) return std::nullopt;
  return *found;
}

std::optional<std::string_view> Config::CodingKeys::key(std::int64_t) {
  return std::nullopt;
}

Config Config::decode(std::string_view json) {
  const KeyedDecodingContainer container(json);
  Config config;
  config.port = container.decodeInt64("port");
  config.user = container.decodeString("user");
  config.pass = container.decodeString("pass");
  config.certPEM = container.decodeString("certPEM");
  return config;
}

NSData Config::encode() const {
  return JSONValue(JSONValue::Object{
                       {"port", port}, {"user", user}, {"pass", pass}, {"certPEM", certPEM}})
      .serialized();
}

std::optional<NSURL> groupURL() {
  return NSFileManager::defaultManager()->containerURL(kGroupIdentifier);
}

Config loadConfig() {
  const auto container = groupURL();
  if (!container) throw NSError(NSCocoaErrorDomain, NSFileNoSuchFileError);
  const NSURL file = container->appendingPathComponent(kConfigFileName);
  return Config::decode(NSFileManager::defaultManager()->contents(file));
}

}  // namespace kestrowan::FPBridge
