#pragma once

#include <functional>
#include <vector>

#include "platform/base/Task.h"
#include "replica/model/Edit.h"
#include "replica/plan/Step.h"
#include "replica/pull/Refresher.h"

namespace kestrowan::replica::push {

/// Finds out whether a server's no to a change is a refusal, or comes from what another client did:
/// looks at what the change is about. Owned by what sends the changes; used on the loop.
class Denials {
 public:
  /// Whether a request is still what is planned.
  using IsPlanned = std::function<bool(const model::State& state, const plan::Push& push)>;

  /// All must outlive it.
  Denials(model::Tree& tree, pull::Refresher& refresher, IsPlanned isPlanned);
  Denials(const Denials&) = delete;
  Denials& operator=(const Denials&) = delete;

  /// Of a request that the server said no to, and whose `intents` count as without an answer. True
  /// when a look shows that nothing of it was done, and that nothing else is to be done now: the
  /// intents are ended then. False when something else is to be done, or no look tells: the planner
  /// goes on with what is known.
  Task<bool> confirm(plan::Push push, std::vector<model::IntentNumber> intents);

 private:
  std::vector<model::ItemNumber> folders(const plan::Push& push) const;
  bool isClear(const model::State& state, const plan::Push& push,
               const std::vector<model::ItemNumber>& folders) const;
  bool endIfPlanned(const plan::Push& push, const std::vector<model::IntentNumber>& intents,
                    const std::vector<model::ItemNumber>& folders);

  model::Tree& tree_;
  pull::Refresher& refresher_;
  const IsPlanned isPlanned_;
};

}  // namespace kestrowan::replica::push
