#include "replica/push/LostAnswers.h"

#include <algorithm>
#include <utility>

#include "platform/base/Threads.h"
#include "replica/model/View.h"
#include "replica/plan/Plan.h"

namespace kestrowan::replica::push {

using model::Edit;
using model::IntentNumber;
using model::ItemNumber;
using model::Time;
using model::View;
using std::chrono::milliseconds;

namespace {

/// What failed is repeated after this time.
constexpr milliseconds kPause{1000};
/// A clock that was set back meanwhile must not make anything wait for longer.
constexpr milliseconds kLongestWait{15 * 60 * 1000};

}  // namespace

LostAnswers::LostAnswers(model::Tree& tree, async::Scope& scope, const pull::Settler& settler,
                         pull::Refresher& refresher, std::function<void()> changed)
    : tree_(tree),
      scope_(scope),
      settler_(settler),
      refresher_(refresher),
      changed_(std::move(changed)) {}

Time LostAnswers::now() const {
  return Time(milliseconds(scope_.wallClock()));
}

void LostAnswers::tend() {
  std::vector<std::pair<IntentNumber, plan::Step>> steps;
  {
    const View view(tree_);
    for (const auto& intent : view->intents().all()) {
      if (!intent.isUnderWay()) {
        steps.emplace_back(intent.number, plan::planForIntent(*view, intent.number, now()));
      }
    }
  }
  for (const auto& [intent, step] : steps) tend(intent, step);
}

void LostAnswers::tend(IntentNumber intent, const plan::Step& step) {
  if (const auto* look = std::get_if<plan::Look>(&step)) {
    if (looking_.insert(intent).second) scope_.spawn(this->look(intent, look->folders));
  } else if (const auto* until = std::get_if<plan::WaitUntil>(&step)) {
    tendAt(until->time);
  } else if (std::holds_alternative<plan::Settle>(step)) {
    const bool isSettled = guarded("the end of a request", [&] { settle(intent); });
    if (!isSettled) tendAt(now() + kPause);
  }
}

void LostAnswers::tendAt(Time time) {
  if (next_ && *next_ <= time) return;
  next_ = time;
  scope_.postAfter(std::clamp(time - now(), milliseconds(1), kLongestWait), [this] {
    next_.reset();
    changed_();
  });
}

void LostAnswers::settle(IntentNumber intent) {
  Edit edit(tree_);
  const plan::Step step = plan::planForIntent(*edit, intent, now());
  const auto* settling = std::get_if<plan::Settle>(&step);
  if (settling && settler_.settle(edit, *settling)) edit.commit();
}

Task<void> LostAnswers::look(IntentNumber intent, std::vector<ItemNumber> folders) {
  milliseconds pause{0};
  try {
    co_await refresher_.look(std::move(folders));
  } catch (...) {
    pause = kPause;
  }
  scope_.postAfter(pause, [this, intent] {
    looking_.erase(intent);
    changed_();
  });
}

}  // namespace kestrowan::replica::push
