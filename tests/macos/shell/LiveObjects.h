#pragma once

#include <mutex>
#include <unordered_map>

#import <Foundation/Foundation.h>

namespace kestrowan::test {

/// How many objects of each class are alive, of those made since the first call of `shared()`.
///
/// GNUstep's own count gives a class two rows when two threads make its first objects at once, and
/// then takes every freed object from the first row.
///
/// The process has one, never destroyed. Safe from every thread.
class LiveObjects {
 public:
  static LiveObjects& shared();

  /// Of exactly `type`. Less than 0 when objects made before the first call of `shared()` are gone.
  long of(Class type) const;
  /// Of every class.
  long all() const;

 private:
  LiveObjects();
  void add(Class type, long change);

  mutable std::mutex mutex_;
  std::unordered_map<Class, long> counts_;
};

}  // namespace kestrowan::test
