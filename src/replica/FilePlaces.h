#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>

#include "platform/foundation/NSError.h"

namespace kestrowan::replica {

/// How many files may be open for programs at once, so that they leave descriptors for everything
/// else. A place is given back when its holder goes, on whatever thread. Guarded by its owner
/// but for that.
class FilePlaces {
 public:
  /// 0 for no limit.
  explicit FilePlaces(std::size_t most) : most_(most) {}

  /// Throws EMFILE of `NSPOSIXErrorDomain` when no place is free.
  void require() const {
    if (most_ != 0 && *taken_ >= most_) throw posixError(EMFILE);
  }
  /// The same, and takes a place.
  std::shared_ptr<void> take() {
    require();
    ++*taken_;
    return {taken_.get(), [taken = taken_](void*) { --*taken; }};
  }

 private:
  const std::size_t most_;
  const std::shared_ptr<std::atomic<std::size_t>> taken_ =
      std::make_shared<std::atomic<std::size_t>>(0);
};

}  // namespace kestrowan::replica
