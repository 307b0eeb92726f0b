#pragma once

#include <atomic>
#include <cerrno>

#include "platform/foundation/NSError.h"

namespace kestrowan::replica::calls {

/// Whether programs may still begin something. Usable from every thread.
class NewWork {
 public:
  void refuse() { isRefused_ = true; }
  bool isRefused() const { return isRefused_; }
  /// Throws EROFS when nothing new may be begun.
  void require() const {
    if (isRefused_) throw posixError(EROFS);
  }

 private:
  std::atomic<bool> isRefused_ = false;
};

}  // namespace kestrowan::replica::calls
