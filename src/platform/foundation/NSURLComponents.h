#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSURL.h"

namespace kestrowan {

/// The parts of a URL, put together by `url()`. A plain value.
struct NSURLComponents {
  std::string scheme;
  std::string host;
  std::optional<std::int64_t> port;
  /// Unencoded; an escape in it is not recognised but encoded again.
  std::string path;

  /// The URL of these parts, with every character percent-encoded that a URL path does not allow.
  /// Nothing when a host or port is set and the path is not empty and does not begin with "/".
  /// Any port is written in decimal as it is.
  std::optional<NSURL> url() const;
};

/// `path` with every character percent-encoded that a URL path does not allow.
std::string stringByAddingPathPercentEncoding(std::string_view path);

}  // namespace kestrowan
