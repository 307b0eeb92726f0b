#pragma once

#include <string>

#include "mount/Mount.h"
#include "platform/foundation/JSONValue.h"
#include "replica/Options.h"
#include "support/InMemoryExtension.h"

namespace kestrowan::test {

/// What the program of the mount tests is started with: one JSON object, of which only
/// "mountPoint" and "state" must be there.
struct HostOptions {
  /// Throws `std::invalid_argument`.
  explicit HostOptions(const JSONValue& json);

  std::string state;
  replica::Options replica;
  mount::MountOptions mount;
  InMemoryOptions provider;
};

}  // namespace kestrowan::test
