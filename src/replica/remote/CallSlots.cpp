#include "replica/remote/CallSlots.h"

#include <algorithm>

namespace kestrowan::replica::remote {

using std::chrono::milliseconds;

CallSlots::CallSlots(async::Loop& loop, std::size_t usual, std::size_t most)
    : loop_(loop), limit_(usual, most) {}

CallSlots::Excuse::Excuse(CallSlots& slots) : slots_(slots) {
  ++slots_.excused_;
  slots_.letBegin();
}

bool CallSlots::takeFree() {
  if (running_ >= limit_.value() + excused_) return false;
  ++running_;
  limit_.noteBegin(loop_.now());
  return true;
}

void CallSlots::wait(std::coroutine_handle<> handle) {
  waiting_.push_back(handle);
  growLater();
}

void CallSlots::give() {
  --running_;
  limit_.noteEnd(running_, waiting_.size());
  letBegin();
}

void CallSlots::letBegin() {
  while (!waiting_.empty() && takeFree()) {
    const auto next = waiting_.front();
    waiting_.pop_front();
    loop_.resumeLater(next);
  }
}

void CallSlots::growLater() {
  if (isToGrow_ || !limit_.canGrow()) return;
  const auto wait = std::chrono::ceil<milliseconds>(limit_.growsAt() - loop_.now());
  loop_.postAfter(std::max(wait, milliseconds(0)), [this] {
    isToGrow_ = false;
    if (waiting_.empty()) return;
    limit_.grow(waiting_.size(), loop_.now());
    letBegin();
    if (!waiting_.empty()) growLater();
  });
  isToGrow_ = true;
}

}  // namespace kestrowan::replica::remote
