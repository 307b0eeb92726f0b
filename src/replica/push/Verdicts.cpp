#include "replica/push/Verdicts.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "async/WithTimeout.h"

namespace kestrowan::replica::push {

using model::Content;
using model::Item;
using model::ItemNumber;
using std::chrono::milliseconds;

Verdicts::Verdicts(async::Scope& scope, remote::Health& health) : scope_(scope), health_(health) {}

Verdicts::Expected::Expected(Verdicts& verdicts, ItemNumber item,
                             std::shared_ptr<OneShot<void>> shot)
    : verdicts_(verdicts), item_(item), shot_(std::move(shot)) {}

Verdicts::Expected::~Expected() {
  if (shot_) verdicts_.forget(item_, shot_);
}

Verdicts::Expected Verdicts::expect(ItemNumber item, Content content) {
  auto shot = std::make_shared<OneShot<void>>(scope_);
  {
    std::lock_guard lock(mutex_);
    waiters_[item].push_back({shot, content, content != Content::none});
  }
  return {*this, item, std::move(shot)};
}

void Verdicts::forget(ItemNumber item, const std::shared_ptr<OneShot<void>>& shot) {
  std::lock_guard lock(mutex_);
  const auto found = waiters_.find(item);
  if (found == waiters_.end()) return;
  std::erase_if(found->second, [&](const Waiter& each) { return each.shot == shot; });
  if (found->second.empty()) waiters_.erase(found);
}

Task<void> Verdicts::word(Expected expected, milliseconds limit) {
  if (!health_.isUp() || health_.isSlow()) co_return;
  std::optional<NSError> error;
  try {
    auto answer = await(std::move(expected), limit);
    co_await std::move(answer);
  } catch (const NSError& caught) {
    error = caught;
  }
  if (error && !error->is(NSPOSIXErrorDomain, ETIMEDOUT)) throw *error;
}

Task<void> Verdicts::arrival(Expected expected, milliseconds limit) {
  if (!health_.isUp()) throw health_.reason();
  auto answer = await(std::move(expected), limit);
  co_await std::move(answer);
}

/// Throws ETIMEDOUT when there is no word within `limit`.
Task<void> Verdicts::await(Expected expected, milliseconds limit) {
  const auto since = scope_.wallClock();
  const auto late = std::make_exception_ptr(posixError(ETIMEDOUT));
  std::optional<NSError> error;
  try {
    co_await async::withTimeout(scope_, limit, late, expected.shot());
  } catch (const NSError& caught) {
    error = caught;
  }
  if (!error) co_return;
  if (error->is(NSPOSIXErrorDomain, ETIMEDOUT)) health_.noteWaited(since);
  throw *error;
}

bool Verdicts::isAwaited(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  return waiters_.contains(item);
}

void Verdicts::note(ItemNumber number, const Item* item) {
  std::lock_guard lock(mutex_);
  const auto found = waiters_.find(number);
  if (found == waiters_.end()) return;
  const bool isDone = !item || item->isInStep();
  std::erase_if(found->second, [&](const Waiter& waiter) {
    const bool hasArrived = waiter.content != Content::none && item && item->agreed() &&
                            item->agreed()->content == waiter.content && item->there();
    if (isDone || hasArrived) waiter.shot->resolve();
    return isDone || hasArrived;
  });
  if (found->second.empty()) waiters_.erase(found);
}

void Verdicts::refuse(ItemNumber item, const NSError& error) {
  Waiters waiters;
  {
    std::lock_guard lock(mutex_);
    const auto found = waiters_.find(item);
    if (found == waiters_.end()) return;
    waiters.swap(found->second);
    waiters_.erase(found);
  }
  for (const Waiter& waiter : waiters) waiter.shot->reject(std::make_exception_ptr(error));
}

void Verdicts::giveUp(const NSError& reason) {
  std::unordered_map<ItemNumber, Waiters> all;
  {
    std::lock_guard lock(mutex_);
    all.swap(waiters_);
  }
  for (const auto& [item, waiters] : all) {
    for (const Waiter& waiter : waiters) {
      if (waiter.needsWord) {
        waiter.shot->reject(std::make_exception_ptr(reason));
      } else {
        waiter.shot->resolve();
      }
    }
  }
}

}  // namespace kestrowan::replica::push
