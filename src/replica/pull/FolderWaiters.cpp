#include "replica/pull/FolderWaiters.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace kestrowan::replica::pull {

using model::ItemNumber;

FolderWaiters::Shot FolderWaiters::join(ItemNumber number, bool fromNow, bool isInsistent) {
  auto waiter = std::make_shared<OneShot<void>>(loop_);
  std::lock_guard lock(mutex_);
  if (isStopped_) {
    waiter->reject(std::make_exception_ptr(posixError(ESHUTDOWN)));
    return waiter;
  }
  Folder& folder = folders_[number];
  // A listing that is on its way is new enough for a look, but not as a proof.
  const bool isTooEarly = folder.isListing && fromNow;
  folder.listAgain = folder.listAgain || isTooEarly;
  (isTooEarly ? folder.nextWaiters : folder.waiters).push_back({waiter, isInsistent});
  return waiter;
}

bool FolderWaiters::isListing(ItemNumber number) const {
  std::lock_guard lock(mutex_);
  const auto found = folders_.find(number);
  return found != folders_.end() && found->second.isListing;
}

bool FolderWaiters::begin(ItemNumber number) {
  std::lock_guard lock(mutex_);
  if (isStopped_) return false;
  return !std::exchange(folders_[number].isListing, true);
}

bool FolderWaiters::end(ItemNumber number, const std::exception_ptr& error) {
  Waiters waiters;
  bool again = false;
  {
    std::lock_guard lock(mutex_);
    const auto found = folders_.find(number);
    if (found == folders_.end()) return false;
    Folder& folder = found->second;
    folder.isListing = false;
    waiters.swap(folder.waiters);
    again = std::exchange(folder.listAgain, false);
    if (again) {
      folder.waiters.swap(folder.nextWaiters);
    } else {
      folders_.erase(found);
    }
  }
  for (const Waiter& waiter : waiters) {
    if (error) {
      waiter.shot->reject(error);
    } else {
      waiter.shot->resolve();
    }
  }
  return again;
}

bool FolderWaiters::answerUnlessInsistent(ItemNumber number, const NSError& error) {
  Waiters answered;
  bool isAwaited = false;
  {
    std::lock_guard lock(mutex_);
    const auto found = folders_.find(number);
    if (isStopped_ || found == folders_.end()) return false;
    Waiters& waiters = found->second.waiters;
    const auto insistent = std::stable_partition(
        waiters.begin(), waiters.end(), [](const Waiter& waiter) { return waiter.isInsistent; });
    answered.assign(insistent, waiters.end());
    waiters.erase(insistent, waiters.end());
    isAwaited = !waiters.empty();
  }
  for (const Waiter& waiter : answered) waiter.shot->reject(std::make_exception_ptr(error));
  return isAwaited;
}

void FolderWaiters::stop() {
  Waiters waiters;
  {
    std::lock_guard lock(mutex_);
    isStopped_ = true;
    for (auto& [number, folder] : folders_) {
      for (Waiters* each : {&folder.waiters, &folder.nextWaiters}) {
        waiters.insert(waiters.end(), each->begin(), each->end());
        each->clear();
      }
    }
  }
  const auto reason = std::make_exception_ptr(posixError(ESHUTDOWN));
  for (const Waiter& waiter : waiters) waiter.shot->reject(reason);
}

}  // namespace kestrowan::replica::pull
