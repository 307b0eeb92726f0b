#pragma once

#include "replica/model/Bytes.h"

namespace kestrowan::replica::model {

/// What the provider says of the state of a file's contents: bytes of its own. Of another version
/// the contents may be others. A folder's version says nothing and is empty.
struct Version {
  Bytes text;

  friend bool operator==(const Version&, const Version&) = default;
};

}  // namespace kestrowan::replica::model
