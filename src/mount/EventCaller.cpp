#include "mount/EventCaller.h"

#include <algorithm>
#include <utility>

#include "platform/base/Fatal.h"

namespace kestrowan::mount {

void EventCaller::add(pid_t process) {
  replace(0, process);
}

void EventCaller::remove(pid_t process) {
  replace(process, 0);
}

void EventCaller::replace(pid_t former, pid_t process) {
  std::lock_guard lock(mutex_);
  const auto place = std::find(processes_.begin(), processes_.end(), former);
  if (place == processes_.end()) fatalError("no place for a process that makes event calls");
  *place = process;
}

void EventCaller::expect(pid_t process, std::shared_ptr<const ExpectedCall> call) {
  std::lock_guard lock(mutex_);
  expected_ = process;
  call_ = std::move(call);
}

void EventCaller::expectNothing() {
  expect(0, nullptr);
}

bool EventCaller::isCaller(pid_t thread) const {
  return thread > 0 && std::find(processes_.begin(), processes_.end(), thread) != processes_.end();
}

std::shared_ptr<const ExpectedCall> EventCaller::expectedOf(pid_t thread) const {
  if (!isCaller(thread)) return nullptr;
  std::lock_guard lock(mutex_);
  return thread == expected_ ? call_ : nullptr;
}

}  // namespace kestrowan::mount
