#include "replica/remote/Reach.h"

#include <utility>

namespace kestrowan::replica::remote {

Reach::Reach(async::Scope& scope, Provider& provider, std::function<void()> resume)
    : scope_(scope), health_(scope, provider, mutex_, std::move(resume)) {}

Task<void> Reach::require() {
  if (isUp()) co_return;
  auto reached = std::make_shared<OneShot<void>>(scope_);
  scope_.spawn(reach(reached));
  auto result = OneShot<void>::result(std::move(reached));
  co_await std::move(result);
}

/// On the loop, whatever thread asked.
Task<void> Reach::reach(std::shared_ptr<OneShot<void>> reached) {
  auto awaited = health_.awaitServer();
  if (co_await std::move(awaited)) {
    reached->resolve();
  } else {
    reached->reject(std::make_exception_ptr(reason()));
  }
}

bool Reach::isUp() const {
  std::lock_guard lock(mutex_);
  return !isStopped_ && health_.isUp();
}

bool Reach::isOffline() const {
  std::lock_guard lock(mutex_);
  return health_.isOffline();
}

bool Reach::isSlow() const {
  std::lock_guard lock(mutex_);
  return health_.isSlow();
}

std::optional<std::string> Reach::held() const {
  std::lock_guard lock(mutex_);
  return health_.held();
}

std::optional<std::string> Reach::unanswered() const {
  std::lock_guard lock(mutex_);
  return health_.unanswered();
}

NSError Reach::reason() const {
  std::lock_guard lock(mutex_);
  return health_.reason();
}

void Reach::begin() {
  std::lock_guard lock(mutex_);
  health_.begin();
}

void Reach::stop() {
  std::lock_guard lock(mutex_);
  isStopped_ = true;
  health_.stop();
}

void Reach::noteSlow() {
  std::lock_guard lock(mutex_);
  health_.noteSlow();
}

void Reach::noteWaited(std::int64_t since) {
  std::lock_guard lock(mutex_);
  health_.noteWaited(since);
}

void Reach::note(const std::optional<NSError>& error) {
  std::lock_guard lock(mutex_);
  if (!isStopped_) health_.note(error);
}

}  // namespace kestrowan::replica::remote
