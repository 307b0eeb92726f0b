#include "replica/store/UnusedContents.h"

#include <algorithm>
#include <cstddef>
#include <unordered_set>
#include <utility>

#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"
#include "replica/model/View.h"

namespace kestrowan::replica::store {

using model::Content;
using model::Intent;
using model::Item;
using model::ItemChange;
using model::View;

namespace {

constexpr std::chrono::milliseconds kDelay{5000};
/// So many are looked up at once, so that edits need not wait long for the database.
constexpr std::size_t kPage = 256;

const Logger& replicaLog() {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  return log;
}

std::vector<ContentNumber> contentsOf(const Item& item) {
  std::vector<ContentNumber> numbers;
  const auto add = [&numbers](Content content) {
    if (content != Content::none) numbers.push_back(static_cast<ContentNumber>(content));
  };
  if (item.here()) add(item.here()->content);
  if (item.there()) add(item.there()->content);
  if (item.agreed()) add(item.agreed()->content);
  return numbers;
}

}  // namespace

UnusedContents::UnusedContents(const model::Tree& tree, async::Scope& scope, ContentFiles& files,
                               TreeJournal& journal, const History& history, Question isHeld)
    : tree_(tree),
      scope_(scope),
      files_(files),
      journal_(journal),
      history_(history),
      isHeld_(std::move(isHeld)) {}

void UnusedContents::note(const ItemChange& change) {
  std::lock_guard lock(mutex_);
  // What an item keeps is not a candidate for a moment.
  count(change.now, 1);
  count(change.before, -1);
}

void UnusedContents::count(const Item* item, int by) {
  if (!item || item->isFolder()) return;
  for (const ContentNumber number : contentsOf(*item)) {
    auto& references = references_[number];
    references += static_cast<std::uint32_t>(by);
    if (references != 0) continue;
    references_.erase(number);
    candidates_.push_back(number);
    removeLater();
  }
}

/// Under the lock.
void UnusedContents::removeLater() {
  if (std::exchange(isDue_, true)) return;
  scope_.postAfter(kDelay, [this] {
    const auto remove = [this] { removeNow(); };
    if (!guarded("the removal of contents", [&] { scope_.postAside(remove); })) remove();
  });
}

void UnusedContents::add(const std::vector<ContentNumber>& numbers) {
  if (numbers.empty()) return;
  std::lock_guard lock(mutex_);
  candidates_.insert(candidates_.end(), numbers.begin(), numbers.end());
  removeLater();
}

bool UnusedContents::isReferredTo(ContentNumber number) const {
  std::lock_guard lock(mutex_);
  return references_.contains(number);
}

/// Sorts out which of the numbers nothing refers to; and which are held or asked for, and give no
/// notice when they are not any more.
UnusedContents::Sorted UnusedContents::sort(const std::vector<ContentNumber>& numbers) const {
  const auto kept = history_.among(numbers);
  std::unordered_set<ContentNumber> asked;
  const View view(tree_);
  for (const Intent& intent : view->intents().all()) {
    asked.insert(static_cast<ContentNumber>(intent.content));
  }
  Sorted result;
  for (const ContentNumber number : numbers) {
    if (kept.contains(number) || isReferredTo(number)) continue;
    const bool isBusy = asked.contains(number) || isHeld_(number);
    (isBusy ? result.busy : result.unused).push_back(number);
  }
  return result;
}

void UnusedContents::removeNow() {
  std::vector<ContentNumber> candidates;
  {
    std::lock_guard lock(mutex_);
    candidates.swap(candidates_);
    isDue_ = false;
  }
  std::vector<ContentNumber> later;
  for (auto next = candidates.begin(); next != candidates.end();) {
    const auto end = next + std::min<std::ptrdiff_t>(kPage, candidates.end() - next);
    const auto busy = removeUnused({next, end});
    later.insert(later.end(), busy.begin(), busy.end());
    next = end;
  }
  add(later);
}

/// Gives those that are to be tried again.
std::vector<ContentNumber> UnusedContents::removeUnused(std::vector<ContentNumber> numbers) {
  try {
    const Sorted sorted = sort(numbers);
    // Whatever refers to one of them no more is written, in case of a power failure too.
    if (!sorted.unused.empty()) journal_.sync();
    for (const ContentNumber number : sorted.unused) files_.remove(number);
    return sorted.busy;
  } catch (...) {
    replicaLog().error("contents stay that nothing refers to: %{public}s",
                       {caughtError().localizedDescription()});
    return numbers;
  }
}

void UnusedContents::removeAtOnce(const std::vector<ContentNumber>& numbers) {
  for (const ContentNumber number : sort(numbers).unused) files_.removeIfPossible(number);
}

}  // namespace kestrowan::replica::store
