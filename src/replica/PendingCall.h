#pragma once

#include <coroutine>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/base/Abandonment.h"
#include "replica/Loop.h"
#include "replica/Outcome.h"

namespace kestrowan::replica {

/// A call of the provider that has not been answered yet, of whatever kind.
class AbandonableCall {
 public:
  virtual ~AbandonableCall() = default;
  /// Ends the call with `error`, and tells the provider's work that nothing waits for it, unless
  /// the call has ended.
  virtual void abandon(const NSError& error) = 0;
};

/// A call's result on its way from a completion handler, on any thread, to the one coroutine that
/// waits for it on the loop. What comes after the first result is dropped.
template <typename T>
class PendingCall : public AbandonableCall {
 public:
  explicit PendingCall(Loop& loop) : loop_(loop) {}

  /// Whether this was the first result.
  bool complete(Outcome<T> outcome) {
    std::lock_guard lock(mutex_);
    if (outcome_) return false;
    // First, because it may find no memory. Who is resumed waits for this lock.
    if (waiter_) loop_.post([waiter = waiter_] { waiter.resume(); });
    waiter_ = nullptr;
    outcome_.emplace(std::move(outcome));
    return true;
  }

  void abandon(const NSError& error) override {
    if (complete(error)) abandonment_->declare();
  }

  /// What the provider's work is started with. Never null.
  const std::shared_ptr<Abandonment>& abandonment() const { return abandonment_; }

  /// Awaitable, once: the outcome.
  auto result() {
    struct Awaiter {
      PendingCall& call;
      bool await_ready() const noexcept { return false; }
      bool await_suspend(std::coroutine_handle<> handle) const {
        std::lock_guard lock(call.mutex_);
        if (call.outcome_) return false;
        call.waiter_ = handle;
        return true;
      }
      Outcome<T> await_resume() const {
        std::lock_guard lock(call.mutex_);
        return *call.outcome_;
      }
    };
    return Awaiter{*this};
  }

 private:
  Loop& loop_;
  const std::shared_ptr<Abandonment> abandonment_ = std::make_shared<Abandonment>();
  std::mutex mutex_;
  std::optional<Outcome<T>> outcome_;
  std::coroutine_handle<> waiter_;
};

}  // namespace kestrowan::replica
