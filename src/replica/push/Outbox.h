#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "replica/Options.h"
#include "replica/model/Edit.h"
#include "replica/plan/Step.h"
#include "replica/pull/Downloader.h"
#include "replica/pull/Refresher.h"
#include "replica/pull/Settler.h"
#include "replica/push/LostAnswers.h"
#include "replica/push/OpenWait.h"
#include "replica/push/Push.h"
#include "replica/push/Queue.h"
#include "replica/push/Refusals.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica::push {

/// Sends what is changed here: asks the planner for each item of its queue what is to be done next,
/// and has it done. Owned by the replica. Calls may come from every
/// thread, within an edit too; the work is done on the loop.
class Outbox {
 public:
  Outbox(model::Tree& tree, async::Scope& scope, remote::Health& health, const Options& options,
         const pull::Settler& settler, pull::Refresher& refresher, pull::Downloader& downloader,
         Push& push, Refusals& refusals, OpenWait& openWait);
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  /// The item was changed by a program: it may have to be sent, after `delay`.
  void noteChange(model::ItemNumber item, std::chrono::milliseconds delay);
  /// The same for one that must be sent soon whatever is changed meanwhile.
  void noteUrgent(model::ItemNumber item, std::chrono::milliseconds delay);
  /// The item may have something to be done; when it waits already, for as long as it does.
  void note(model::ItemNumber item);
  /// The item is no more.
  void forget(model::ItemNumber item);
  /// Ends the waiting time of everything that failed; what was refused stays so.
  void retryAll();
  /// Enqueues everything that is pending. For the beginning.
  void restore();

  bool isSending(model::ItemNumber item) const;
  /// Whether nothing is being sent.
  bool isIdle() const;
  /// When the item was changed here last; absent when it is not on its way.
  std::optional<model::Time> changedAt(model::ItemNumber item) const;
  /// The order in which items are to be sent; 0 for one that is not on its way.
  std::uint64_t order(model::ItemNumber item) const;
  /// Ends once nothing is to be sent that could be; throws EIO when only refused changes are left,
  /// and ETIMEDOUT after `limit`.
  Task<void> untilSynced(std::chrono::milliseconds limit);
  /// Begins nothing any more, and answers what waits.
  void stop();

 private:
  bool isStopped() const;
  model::Time now() const;
  void wake();
  void pump();
  void schedule();
  void endSchedule();
  void advance(model::ItemNumber item);
  void settle(model::ItemNumber item, const plan::Settle& step);
  plan::Push wholePush(const plan::Push& push) const;
  void push(model::ItemNumber item, const plan::Push& planned);
  void start(model::ItemNumber item, Task<void> task);
  Task<void> run(model::ItemNumber item, Task<void> task);
  void finish(model::ItemNumber item, std::optional<std::chrono::milliseconds> delay);
  std::optional<bool> isSynced() const;
  void answerWaiters();

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Health& health_;
  const pull::Settler& settler_;
  pull::Refresher& refresher_;
  pull::Downloader& downloader_;
  Push& push_;
  Refusals& refusals_;
  OpenWait& openWait_;
  Queue queue_;
  LostAnswers lostAnswers_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  /// When `pump` runs for the item that is due first.
  std::optional<std::pair<async::Loop::Moment, async::Loop::TimerNumber>> timer_;
  bool isPumping_ = false;
  bool isStopped_ = false;
  std::vector<std::shared_ptr<OneShot<void>>> syncWaiters_;
};

}  // namespace kestrowan::replica::push
