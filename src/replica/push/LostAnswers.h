#pragma once

#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "async/Scope.h"
#include "platform/base/Task.h"
#include "replica/model/Edit.h"
#include "replica/plan/Step.h"
#include "replica/pull/Refresher.h"
#include "replica/pull/Settler.h"

namespace kestrowan::replica::push {

/// Looks after the requests whose answer never came: finds out at the provider what became of them,
/// until they can land no more. Owned by the outbox. Used on the loop.
class LostAnswers {
 public:
  /// `changed` is called on the loop when the items may be looked at again: a folder was listed, or
  /// the time has come for something that a request waited for.
  LostAnswers(model::Tree& tree, async::Scope& scope, const pull::Settler& settler,
              pull::Refresher& refresher, std::function<void()> changed);
  LostAnswers(const LostAnswers&) = delete;
  LostAnswers& operator=(const LostAnswers&) = delete;

  /// Begins what such requests need next, whatever became of their items.
  void tend();

 private:
  void tend(model::IntentNumber intent, const plan::Step& step);
  Task<void> look(model::IntentNumber intent, std::vector<model::ItemNumber> folders);
  void tendAt(model::Time time);
  void settle(model::IntentNumber intent);
  model::Time now() const;

  model::Tree& tree_;
  async::Scope& scope_;
  const pull::Settler& settler_;
  pull::Refresher& refresher_;
  const std::function<void()> changed_;

  /// When requests are to be looked after next.
  std::optional<model::Time> next_;
  /// Those whose folders are being listed.
  std::set<model::IntentNumber> looking_;
};

}  // namespace kestrowan::replica::push
