#pragma once

#include <memory>
#include <mutex>

#include "platform/foundation/NSProgress.h"

#import <Foundation/Foundation.h>

#include "macos/Retained.h"

namespace kestrowan::macos {

/// A progress of the platform that shows the counts of one of the module. Shared by pointer between
/// the entry point, which says what to follow once it knows, and the completion of the operation,
/// which may come first. Usable from every thread.
class ProgressMirror {
 public:
  /// The platform's progress is plain, without unit counts, until there is something to show.
  ProgressMirror();

  /// From now on shows `progress`, beginning with its present counts. Called at most once.
  void follow(std::shared_ptr<const NSProgress> progress);
  /// Takes over the present counts of what is followed, if anything is.
  void update();

  /// Autoreleased.
  ::NSProgress* platformProgress() const { return platformProgress_.autoreleased(); }

 private:
  void copyCounts();

  std::mutex mutex_;
  std::shared_ptr<const NSProgress> followed_;
  const Retained<::NSProgress*> platformProgress_;
};

}  // namespace kestrowan::macos
