#pragma once

namespace kestrowan::replica::store {

/// Makes what was committed survive a power failure.
class Durability {
 public:
  virtual ~Durability() = default;

  /// Every edit that was committed before is durable when it returns. From every thread, also while
  /// another one commits. Throws `NSError`.
  virtual void sync() = 0;
};

}  // namespace kestrowan::replica::store
