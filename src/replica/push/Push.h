#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"
#include "replica/Options.h"
#include "replica/model/Edit.h"
#include "replica/plan/Requests.h"
#include "replica/plan/Step.h"
#include "replica/pull/Freezer.h"
#include "replica/pull/NameForms.h"
#include "replica/pull/Refresher.h"
#include "replica/pull/Settler.h"
#include "replica/pull/Touches.h"
#include "replica/push/Denials.h"
#include "replica/remote/Health.h"
#include "replica/remote/Provider.h"
#include "replica/store/Contents.h"

namespace kestrowan::replica::push {

/// Carries out one request that the planner asks for: looks first at what it concerns, notes it,
/// sends it, and writes what came of it. Owned by the replica; used on the loop. Throws the
/// provider's `NSError`, and this machine's; what may have arrived all the same is noted as such.
class Push {
 public:
  Push(model::Tree& tree, async::Loop& loop, remote::Provider& provider, remote::Health& health,
       const Options& options, const pull::Settler& settler, pull::NameForms& forms,
       pull::Refresher& refresher, pull::Touches& touches, pull::Freezer& freezer,
       store::Contents& contents);
  Push(const Push&) = delete;
  Push& operator=(const Push&) = delete;

  /// Ends when it was done, and also when something else is to be done first. `changedAt`: when a
  /// program changed the item last; absent when that was before this process began.
  Task<void> carryOut(plan::Push push, std::optional<model::Time> changedAt);

  /// The item to be removed that takes this one along: itself, or a folder above all of which is
  /// known and to be removed.
  model::ItemNumber removedWith(const model::State& state, model::ItemNumber item) const;

 private:
  /// A request on its way.
  struct Sent {
    plan::Push push;
    std::vector<model::IntentNumber> intents;
    std::vector<model::Path> paths;
    /// In which something changes.
    std::vector<model::ItemNumber> folders;
    /// Where the item is to be.
    model::Place target;
    NSFileProviderItemPtr wanted;
    NSFileProviderItemIdentifier identifier;
    NSFileProviderItemVersion version;
    NSFileProviderItemFields fields = 0;
    pull::Frozen frozen;
    bool isFolder = false;

    bool isCreation() const { return push.change == plan::Change::create; }
    bool hasContents() const { return frozen.number != model::Content::none; }
  };

  model::Time now() const;
  bool isStillPlanned(const model::State& state, const plan::Push& push) const;
  bool sendsContents(const model::State& state, const plan::Push& push) const;
  std::vector<model::ItemNumber> foldersToList(const plan::Push& push,
                                               std::optional<model::Time> changedAt) const;
  std::vector<model::ItemNumber> foldersOf(const plan::Push& push) const;
  std::vector<model::ItemNumber> foldersInTree(const model::State& state,
                                               model::ItemNumber folder) const;
  static bool isToGo(const model::State& state, const model::Item& item);
  bool isToBeSent(const plan::Push& push) const;
  Task<remote::Provider::Turn> awaitTurn(const plan::Push& push, bool hasContents);
  Task<void> ask(model::ItemNumber item);
  void writeSeen(model::ItemNumber item, const NSFileProviderItem& seen);
  std::optional<Sent> prepare(const plan::Push& push, pull::Frozen frozen);
  bool mayHoldUnseen(const model::State& state, const plan::Push& push) const;
  bool mayReplaceUnseen(const plan::Push& push) const;
  static void doubtDates(model::Edit& edit, const Sent& sent);
  void fillTemplate(const model::State& state, Sent& sent) const;
  Task<void> send(remote::Provider::Turn turn, Sent sent);
  Task<remote::WrittenItem> request(remote::Provider::Turn turn, const Sent& sent);
  void writeAnswer(const Sent& sent, const remote::WrittenItem& written);
  void writeRemoval(const Sent& sent);
  Task<void> note(std::function<void()> write);
  static void showWhatIsThere(model::Edit& edit, model::ItemNumber item);
  void writeState(model::Edit& edit, const Sent& sent, const NSFileProviderItem& answered);
  static void writeGone(model::Edit& edit, const Sent& sent);
  bool isAnswerAbout(const model::State& state, const Sent& sent,
                     const NSFileProviderItem& answered) const;
  void writeFailure(const Sent& sent, const NSError& error);

  model::Tree& tree_;
  async::Loop& loop_;
  remote::Provider& provider_;
  remote::Health& health_;
  const Options& options_;
  const pull::Settler& settler_;
  pull::NameForms& forms_;
  pull::Refresher& refresher_;
  pull::Touches& touches_;
  pull::Freezer& freezer_;
  store::Contents& contents_;
  Denials denials_;
};

}  // namespace kestrowan::replica::push
