#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSData.h"
#include "platform/foundation/NSURL.h"

namespace kestrowan::FPBridge {

/// The application group that the extension shares with the host application.
inline constexpr std::string_view kGroupIdentifier = "K9PLW2XT4R.group.com.kestrowan.app";

/// The file in the group's container through which the host application says how to reach it.
inline constexpr std::string_view kConfigFileName = "fp-webdav.json";

/// How to reach the host application. A plain value, not validated beyond its types.
struct Config {
  /// TCP port of the HTTPS server on 127.0.0.1.
  std::int64_t port;
  /// HTTP Basic credentials.
  std::string user;
  std::string pass;
  /// The server's self-signed certificate as a PEM text block.
  std::string certPEM;

  /// The names of the members of the JSON form, in the order in which they are written.
  struct CodingKeys {
    static constexpr std::array<std::string_view, 4> allCases = {"port", "user", "pass", "certPEM"};

    /// The key of that name; nothing for any other text.
    static std::optional<std::string_view> key(std::string_view stringValue);
    /// Keys have no integer values: always nothing.
    static std::optional<std::string_view> key(std::int64_t intValue);
  };

  /// Decodes one JSON object; members of other names are ignored. Throws `NSError` of
  /// `NSCocoaErrorDomain` for malformed JSON and for a member that is missing or of another type.
  static Config decode(std::string_view json);
  /// The JSON form: one object of the four members.
  NSData encode() const;

  friend bool operator==(const Config&, const Config&) = default;
};

/// The group's container directory; nothing when the system gives none. Creates nothing.
std::optional<NSURL> groupURL();

/// Reads and decodes the configuration file. Throws `NSError`: absent container
/// (`NSCocoaErrorDomain`, `NSFileNoSuchFileError`), unreadable file or undecodable contents.
Config loadConfig();

}  // namespace kestrowan::FPBridge
