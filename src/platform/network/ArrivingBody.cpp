#include "platform/network/ArrivingBody.h"

#include <algorithm>

namespace kestrowan {

ArrivingBody::ArrivingBody(ArrivingHead head, UniqueFd file, Controls controls)
    : head_(std::move(head)), file_(std::move(file)), controls_(std::move(controls)) {}

std::int64_t ArrivingBody::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

void ArrivingBody::whenReached(std::int64_t offset, std::function<void()> function) {
  {
    std::lock_guard lock(mutex_);
    if (bytes_ < offset) {
      awaited_.emplace_back(offset, std::move(function));
      return;
    }
  }
  function();
}

void ArrivingBody::setLimit(std::int64_t bytes) {
  {
    std::lock_guard lock(mutex_);
    limit_ = bytes;
    if (!isPaused_ || bytes_ >= limit_) return;
    isPaused_ = false;
  }
  if (controls_.goOn) controls_.goOn();
}

void ArrivingBody::cancel() const {
  if (controls_.cancel) controls_.cancel();
}

bool ArrivingBody::mayTake() {
  std::lock_guard lock(mutex_);
  isPaused_ = bytes_ >= limit_;
  return !isPaused_;
}

void ArrivingBody::noteReached(std::int64_t bytes) {
  std::vector<std::function<void()>> reached;
  {
    std::lock_guard lock(mutex_);
    bytes_ = bytes;
    if (awaited_.empty()) return;
    const auto far = std::partition(awaited_.begin(), awaited_.end(),
                                    [bytes](const auto& each) { return each.first > bytes; });
    for (auto each = far; each != awaited_.end(); ++each)
      reached.push_back(std::move(each->second));
    awaited_.erase(far, awaited_.end());
  }
  for (const auto& function : reached) function();
}

}  // namespace kestrowan
