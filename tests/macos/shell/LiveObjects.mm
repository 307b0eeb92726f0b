#include "LiveObjects.h"

#import <Foundation/NSDebug.h>

namespace kestrowan::test {

LiveObjects& LiveObjects::shared() {
  // Never destroyed: a background task may outlive the static objects of the program.
  static auto* objects = new LiveObjects;
  return *objects;
}

LiveObjects::LiveObjects() {
  GSSetDebugAllocationFunctions([](Class type, id) { shared().add(type, 1); },
                                [](Class type, id) { shared().add(type, -1); });
}

long LiveObjects::of(Class type) const {
  std::lock_guard lock(mutex_);
  const auto found = counts_.find(type);
  return found == counts_.end() ? 0 : found->second;
}

long LiveObjects::all() const {
  std::lock_guard lock(mutex_);
  long total = 0;
  for (const auto& [type, count] : counts_) total += count;
  return total;
}

void LiveObjects::add(Class type, long change) {
  std::lock_guard lock(mutex_);
  counts_[type] += change;
}

}  // namespace kestrowan::test
