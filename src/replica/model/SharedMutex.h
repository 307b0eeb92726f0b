#pragma once

#include <shared_mutex>

#include "replica/model/ThreadSafety.h"

namespace kestrowan::replica::model {

/// A mutex that one writer or any number of readers hold, known to clang's analysis of locks.
class KFP_CAPABILITY("mutex") SharedMutex {
 public:
  void lock() KFP_ACQUIRE() { mutex_.lock(); }
  void unlock() KFP_RELEASE() { mutex_.unlock(); }
  void lockShared() KFP_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlockShared() KFP_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

}  // namespace kestrowan::replica::model
