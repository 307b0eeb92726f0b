#include "mount/UntoldChanges.h"

#include <algorithm>
#include <utility>

namespace kestrowan::mount {

using replica::NameChange;
using replica::Rid;

void UntoldChanges::note(const std::vector<NameChange>& changes, Moment now) {
  {
    std::lock_guard lock(mutex_);
    for (const auto& change : changes) {
      const auto [found, isNew] = folders_.try_emplace(change.folder);
      Folder& folder = found->second;
      if (isNew) {
        order_.push_back(change.folder);
        ++count_;
      }
      if (!folder.since) {
        add(folder, change);
        if (folder.names.size() <= kMost) continue;
        folder.names.clear();
        folder.order.clear();
        folder.since = now;
      }
      folder.due = std::min(now + kQuiet, *folder.since + kLongest);
    }
  }
  wake_();
}

void UntoldChanges::add(Folder& folder, const NameChange& change) {
  const auto [found, isNew] = folder.names.try_emplace(change.name, change);
  if (isNew) {
    folder.order.push_back(change.name);
    return;
  }
  NameChange& known = found->second;
  known.now = change.now;
  known.hasOtherContents |= change.hasOtherContents;
}

std::vector<EventCall> UntoldChanges::next(Moment now) {
  std::lock_guard lock(mutex_);
  for (std::size_t left = order_.size(); left > 0; --left) {
    const Rid number = order_.front();
    order_.pop_front();
    Folder& folder = folders_[number];
    if (folder.since && folder.due > now) {
      order_.push_back(number);
      continue;
    }
    auto calls = take(number, folder);
    if (folder.names.empty()) {
      folders_.erase(number);
      --count_;
    } else {
      order_.push_back(number);
    }
    if (calls.empty()) continue;
    if (!std::exchange(isTelling_, true)) ++count_;
    return calls;
  }
  return {};
}

/// The calls for the next change of the folder that is to be told at all.
std::vector<EventCall> UntoldChanges::take(Rid number, Folder& folder) {
  if (folder.since) {
    inHand_.reset();
    return {callForFolder(number)};
  }
  while (!folder.order.empty()) {
    auto change = std::move(folder.names.extract(folder.order.front()).mapped());
    folder.order.pop_front();
    auto calls = callsFor(change);
    if (calls.empty()) continue;
    inHand_ = std::move(change);
    return calls;
  }
  return {};
}

void UntoldChanges::noteTold() {
  std::lock_guard lock(mutex_);
  inHand_.reset();
  if (std::exchange(isTelling_, false)) --count_;
}

std::optional<UntoldChanges::Moment> UntoldChanges::nextMoment() const {
  std::lock_guard lock(mutex_);
  std::optional<Moment> soonest;
  for (const auto& [number, folder] : folders_) {
    const Moment due = folder.since ? folder.due : Moment::min();
    if (!soonest || due < *soonest) soonest = due;
  }
  return soonest;
}

bool UntoldChanges::isUntold(Rid folder, const std::string& name) const {
  if (count_ == 0) return false;
  std::lock_guard lock(mutex_);
  if (inHand_ && inHand_->folder == folder && inHand_->name == name) return true;
  const auto found = folders_.find(folder);
  return found != folders_.end() && found->second.names.contains(name);
}

void UntoldChanges::clear() {
  std::lock_guard lock(mutex_);
  folders_.clear();
  order_.clear();
  inHand_.reset();
  isTelling_ = false;
  count_ = 0;
}

}  // namespace kestrowan::mount
