#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/NSDate.h"

namespace kestrowan {

/// One resource as the server reports it. A plain value; `WebDAVClient::Entry` is its full name.
struct WebDAVEntry {
  /// Server path, percent-decoded and normalised.
  std::string path;
  /// The last component of `path`, "/" for the root.
  std::string name;
  bool isDir = false;
  /// Bytes; 0 when unknown. Not validated: a server may send a negative number.
  std::int64_t size = 0;
  /// The entity tag without its quotes, or the decimal text of `size`: never empty.
  std::string etag;
  std::optional<NSDate> modified;

  friend bool operator==(const WebDAVEntry&, const WebDAVEntry&) = default;
};

}  // namespace kestrowan
