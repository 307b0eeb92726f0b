#include "macos/ProgressMirror.h"

#include <utility>

namespace kestrowan::macos {

ProgressMirror::ProgressMirror()
    : platformProgress_(Retained<::NSProgress*>::adopt([[::NSProgress alloc] initWithParent:nil
                                                                                   userInfo:nil])) {
}

void ProgressMirror::follow(std::shared_ptr<const NSProgress> progress) {
  std::lock_guard lock(mutex_);
  followed_ = std::move(progress);
  copyCounts();
}

void ProgressMirror::update() {
  std::lock_guard lock(mutex_);
  if (followed_) copyCounts();
}

void ProgressMirror::copyCounts() {
  ::NSProgress* const shown = platformProgress_.get();
  const auto total = followed_->totalUnitCount();
  const auto completed = followed_->completedUnitCount();
  if ([shown totalUnitCount] != total) [shown setTotalUnitCount:total];
  if ([shown completedUnitCount] != completed) [shown setCompletedUnitCount:completed];
}

}  // namespace kestrowan::macos
