#include "replica/store/HistoryLimits.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"
#include "replica/model/View.h"

namespace kestrowan::replica::store {

using model::Item;
using model::State;
using model::View;

namespace {

constexpr std::int64_t kGibibyte = std::int64_t{1} << 30;

const Logger& replicaLog() {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  return log;
}

}  // namespace

HistoryLimits::HistoryLimits(const model::Tree& tree, async::Scope& scope,
                             const ContentFiles& files, History& history, UnusedContents& unused,
                             const Settings& settings)
    : tree_(tree),
      scope_(scope),
      files_(files),
      history_(history),
      unused_(unused),
      settings_(settings) {
  history_.setLimit(settings.size > 0 ? settings.size
                                      : std::min(10 * kGibibyte, files.space().capacity / 20));
}

void HistoryLimits::keep() {
  const auto missing = std::max<std::int64_t>(settings_.freeSpaceFloor - files_.space().free, 0);
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(isRunning_, true)) return;
  }
  // What keeps the disk from having free what it must have is too much, too.
  const auto room = std::max<std::int64_t>(history_.usage().bytes - missing, 0);
  const auto now = std::chrono::milliseconds(scope_.wallClock());
  const auto before = std::chrono::floor<std::chrono::seconds>(now) - settings_.time;
  goOn(std::make_shared<HistoryTrim>(
      history_.beginTrim({.bytes = std::min(history_.limit(), room), .before = before.count()})));
}

void HistoryLimits::goOn(const std::shared_ptr<HistoryTrim>& trim) {
  bool isDone = true;
  try {
    std::vector<HistoryEntry> toGo;
    const auto usage = history_.usage();
    auto page = history_.next(*trim);
    {
      const View view(tree_);
      toGo = trim->choose(std::move(page), usage, [&](const HistoryEntry& entry) {
        return isStillAtProvider(*view, entry);
      });
    }
    std::vector<ContentNumber> numbers;
    for (const auto& entry : history_.remove(toGo)) numbers.push_back(entry.content);
    unused_.add(numbers);
    isDone = trim->isDone();
  } catch (...) {
    replicaLog().error("the history cannot be kept within its limits: %{public}s",
                       {caughtError().localizedDescription()});
  }
  if (isDone) {
    // What stays although it was to go is looked at again the next time.
    std::lock_guard lock(mutex_);
    isRunning_ = false;
    return;
  }
  scope_.postAside([this, trim] { goOn(trim); });
}

/// Whether an item in the entry's place at the provider has the entry's contents.
bool HistoryLimits::isStillAtProvider(const State& state, const HistoryEntry& entry) const {
  if (entry.version.empty() || !entry.path.starts_with('/')) return false;
  const auto path = model::Path::fromText(std::string_view(entry.path).substr(1));
  const Item* at = path ? state.atPath(*path) : nullptr;
  return at && at->isFile() && at->there() && at->there()->isVersionKnown &&
         at->there()->version.text == entry.version && at->there()->size == entry.size;
}

}  // namespace kestrowan::replica::store
