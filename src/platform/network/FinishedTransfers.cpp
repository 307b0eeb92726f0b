#include "platform/network/FinishedTransfers.h"

#include <algorithm>
#include <utility>

namespace kestrowan {

bool FinishedTransfer::isDoubtful() const {
  return body && !body->isWhole() && errorCode == 0 && httpStatus >= 200 && httpStatus <= 299;
}

FinishedTransfers& FinishedTransfers::shared() {
  // Never destroyed: a transfer may end after the static objects of the program.
  static auto* transfers = new FinishedTransfers;
  return *transfers;
}

void FinishedTransfers::setObserver(Observer observer) {
  auto made = observer ? std::make_shared<const Observer>(std::move(observer)) : nullptr;
  std::lock_guard lock(mutex_);
  observer_ = std::move(made);
}

void FinishedTransfers::add(FinishedTransfer transfer) {
  std::shared_ptr<const Observer> observer;
  {
    std::lock_guard lock(mutex_);
    observer = observer_;
  }
  if (observer) (*observer)(transfer);
  std::lock_guard lock(mutex_);
  transfers_.push_back(std::move(transfer));
  if (transfers_.size() <= kMost) return;
  const auto dispensable =
      std::find_if(transfers_.begin(), transfers_.end(),
                   [](const FinishedTransfer& one) { return !one.isDoubtful(); });
  if (dispensable != transfers_.end()) {
    transfers_.erase(dispensable);
  } else {
    lastDropped_ = transfers_.front().finishedAt;
    transfers_.pop_front();
  }
}

std::vector<FinishedTransfer> FinishedTransfers::transfers() const {
  std::lock_guard lock(mutex_);
  return {transfers_.begin(), transfers_.end()};
}

std::optional<FinishedTransfer> FinishedTransfers::latestOf(
    const std::shared_ptr<const Abandonment>& caller) const {
  if (!caller) return std::nullopt;
  std::lock_guard lock(mutex_);
  const auto found =
      std::find_if(transfers_.rbegin(), transfers_.rend(),
                   [&](const FinishedTransfer& one) { return one.abandonment.lock() == caller; });
  if (found == transfers_.rend()) return std::nullopt;
  return *found;
}

bool FinishedTransfers::hasDoubtful(
    std::string_view httpMethod, Clock::time_point since,
    const std::function<bool(const std::string& url)>& isMeant) const {
  std::lock_guard lock(mutex_);
  if (lastDropped_ >= since) return true;
  return std::any_of(transfers_.begin(), transfers_.end(), [&](const FinishedTransfer& one) {
    return one.finishedAt >= since && one.httpMethod == httpMethod && one.isDoubtful() &&
           isMeant(one.url);
  });
}

}  // namespace kestrowan
