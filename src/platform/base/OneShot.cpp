#include "platform/base/OneShot.h"

namespace kestrowan {

PendingResult::PendingResult(Resumer& resumer, std::shared_ptr<Abandonment> abandonment)
    : resumer_(resumer), abandonment_(std::move(abandonment)) {}

bool PendingResult::reject(std::exception_ptr exception) {
  return finish([&] { exception_ = std::move(exception); });
}

void PendingResult::abandon(std::exception_ptr exception) {
  if (reject(std::move(exception)) && abandonment_) abandonment_->declare();
}

void PendingResult::rethrowIfRejected() {
  // Taken out, so that the other holder of the shot is not the one that frees it.
  if (auto exception = std::exchange(exception_, nullptr)) {
    std::rethrow_exception(std::move(exception));
  }
}

bool PendingResult::wait(std::coroutine_handle<> waiter) {
  std::lock_guard lock(mutex_);
  if (finished_) return false;
  waiter_ = waiter;
  return true;
}

void PendingResult::resume(std::unique_lock<std::mutex>& lock) {
  finished_ = true;
  const auto waiter = waiter_;
  lock.unlock();
  if (waiter) resumer_.resumeLater(waiter);
}

OneShot<void>::OneShot(Resumer& resumer, std::shared_ptr<Abandonment> abandonment)
    : PendingResult(resumer, std::move(abandonment)) {}

bool OneShot<void>::resolve() {
  return finish([] {});
}

Task<void> OneShot<void>::result(std::shared_ptr<OneShot> shot) {
  Wait wait{*shot};
  co_await wait;
  shot->rethrowIfRejected();
}

}  // namespace kestrowan
