#include <cerrno>
#include <utility>

#include "replica/Sender.h"

namespace kestrowan::replica {

using std::chrono::milliseconds;

/// Somebody who waits, answered once.
struct Sender::SyncWaiter {
  Completion<Done> completion;
  bool answered = false;
};

void Sender::awaitVerdict(const ItemPtr& item, milliseconds limit, Completion<Done> completion) {
  if (item->gone || !item->isPending() || !health_.isUp() || health_.isSlow()) {
    core_.answer<Done>(std::move(completion), Done{});
    return;
  }
  await(item, limit, false, std::move(completion));
}

void Sender::awaitArrival(const ItemPtr& item, milliseconds limit, Completion<Done> completion) {
  if (item->gone || !item->isPending()) {
    core_.answer<Done>(std::move(completion), Done{});
  } else if (!health_.isUp()) {
    core_.answer<Done>(std::move(completion), health_.reason());
  } else {
    await(item, limit, true, std::move(completion));
  }
}

void Sender::await(const ItemPtr& item, milliseconds limit, bool needsWord,
                   Completion<Done> completion) {
  auto once = std::make_shared<SyncWaiter>();
  once->completion = std::move(completion);
  const auto timer =
      core_.loop.postAfter(limit, [this, item, once, needsWord, since = core_.milliseconds()] {
        if (std::exchange(once->answered, true)) return;
        {
          std::lock_guard lock(core_.mutex);
          health_.noteWaited(since);
          std::erase_if(item->sync->verdictWaiters,
                        [&](const auto& waiter) { return waiter.once == once; });
        }
        if (needsWord) {
          once->completion(posixError(ETIMEDOUT));
        } else {
          once->completion(Done{});
        }
      });
  auto answer = [this, once, timer](Outcome<Done> outcome) {
    if (std::exchange(once->answered, true)) return;
    core_.loop.cancel(timer);
    once->completion(std::move(outcome));
  };
  core_.sync(item).verdictWaiters.push_back({std::move(answer), once, needsWord});
}

void Sender::answerVerdict(const ItemPtr& item, const std::optional<NSError>& error) {
  if (!item->sync) return;
  for (auto& waiter : std::exchange(item->sync->verdictWaiters, {})) {
    if (error) {
      core_.answer<Done>(std::move(waiter.completion), *error);
    } else {
      core_.answer<Done>(std::move(waiter.completion), Done{});
    }
  }
}

/// What is about to be sent is all that whoever waits by now waits for.
void Sender::coverWaiters(const ItemPtr& item) {
  for (auto& waiter : item->sync->verdictWaiters) waiter.isCovered = true;
}

/// It has arrived.
void Sender::answerCovered(const ItemPtr& item) {
  auto& waiters = item->sync->verdictWaiters;
  for (auto& waiter : waiters) {
    if (waiter.isCovered) core_.answer<Done>(std::move(waiter.completion), Done{});
  }
  std::erase_if(waiters, [](const auto& waiter) { return waiter.isCovered; });
}

/// There will be no word for now.
void Sender::answerWithoutWord(const ItemPtr& item, const NSError& reason) {
  if (!item->sync) return;
  for (auto& waiter : std::exchange(item->sync->verdictWaiters, {})) {
    if (waiter.needsWord) {
      core_.answer<Done>(std::move(waiter.completion), reason);
    } else {
      core_.answer<Done>(std::move(waiter.completion), Done{});
    }
  }
}

void Sender::waitUntilSynced(milliseconds limit, Completion<Done> completion) {
  auto waiter = std::make_shared<SyncWaiter>();
  waiter->completion = std::move(completion);
  {
    std::lock_guard lock(core_.mutex);
    syncWaiters_.push_back(waiter);
  }
  core_.loop.postAfter(limit, [waiter] {
    if (!std::exchange(waiter->answered, true)) waiter->completion(posixError(ETIMEDOUT));
  });
  core_.loop.post([this] { pump(); });
}

void Sender::checkWaiters() {
  if (syncWaiters_.empty()) return;
  const bool busy = !core_.sending.empty() || !delayed_.empty() || !readyNames_.empty() ||
                    !readyContents_.empty();
  if (busy && !core_.stopped) return;
  bool refused = false;
  bool waiting = false;
  core_.table.forEach([&](const ItemPtr& item) {
    if (!item->isPending()) return;
    // What waits for others when nothing else is under way waits for what was refused.
    const bool isBlocked = item->sync && item->sync->place == Place::blocked;
    const bool isRefused =
        isBlocked || (item->failure && item->failure->failureClass == FailureClass::refused);
    refused = refused || isRefused;
    // What somebody still has open is queued when it is closed.
    waiting = waiting || !isRefused;
  });
  if (waiting && !core_.stopped) return;
  const bool disagree = refused || waiting;
  for (auto& waiter : std::exchange(syncWaiters_, {})) {
    core_.loop.post([waiter, disagree] {
      if (std::exchange(waiter->answered, true)) return;
      if (disagree) {
        waiter->completion(posixError(EIO));
      } else {
        waiter->completion(Done{});
      }
    });
  }
}

void Sender::stop() {
  const NSError reason = posixError(ESHUTDOWN);
  core_.table.forEach([&](const ItemPtr& item) { answerWithoutWord(item, reason); });
  checkWaiters();
}

}  // namespace kestrowan::replica
