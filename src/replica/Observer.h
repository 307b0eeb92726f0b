#pragma once

#include <string>

#include "replica/Records.h"

namespace kestrowan::replica {

/// Learns what changed without an application's doing, so that copies elsewhere can be dropped.
/// Called from every thread, with the replica's lock held: must return at once and must not call
/// the replica.
class Observer {
 public:
  virtual ~Observer() = default;

  /// The name now stands for another item, or for none.
  virtual void entryChanged(Rid folder, const std::string& name) = 0;
  /// Attributes of an item changed, and its contents when `contents` says so.
  virtual void itemChanged(Rid item, bool contents) = 0;
};

}  // namespace kestrowan::replica
