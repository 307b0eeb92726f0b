#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
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
#include "replica/push/OpenWait.h"
#include "replica/push/Push.h"
#include "replica/push/Refusals.h"
#include "replica/remote/Reach.h"

namespace kestrowan::replica::push {

/// The items that wait to be sent: asks the planner for each what is to be done next, and has it
/// done, as much at once as the limits allow. Owned by the replica. Calls may come from every
/// thread, within an edit too; the work is done on the loop.
class Outbox {
 public:
  Outbox(model::Tree& tree, async::Scope& scope, remote::Reach& health, const Options& options,
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
  enum class Stage : std::uint8_t { delayed, ready, blocked, running };

  struct Entry {
    Stage stage = Stage::delayed;
    std::uint64_t order = 0;
    /// Uptime.
    async::Loop::Moment due;
    model::Time changedAt;
    bool isUpload = false;
    bool isLarge = false;
    /// The item that is waited for.
    model::ItemNumber blocker = model::ItemNumber::none;
    /// It was changed while something was done about it.
    bool isChanged = false;
    std::chrono::milliseconds nextDelay{0};
    /// A later change does not put it off.
    bool isUrgent = false;
  };
  using Key = std::pair<bool, std::uint64_t>;

  // With the lock.
  Entry& entry(model::ItemNumber item);
  void enqueue(model::ItemNumber item, Entry& entry, std::chrono::milliseconds delay);
  void takeOut(model::ItemNumber item, Entry& entry);
  void block(model::ItemNumber item, Entry& entry, model::ItemNumber blocker);
  void release(model::ItemNumber blocker);
  void schedule();
  std::optional<model::ItemNumber> takeReady();

  void giveBack(const Entry& entry);

  bool isStopped() const;
  model::Time now() const;
  void wake();
  void pump();
  void makeReady();
  void advance(model::ItemNumber item);
  void waitFor(model::ItemNumber item, model::ItemNumber other);
  void waitForAnswer(model::ItemNumber item);
  void tend();
  void tend(model::IntentNumber intent, const plan::Step& step);
  Task<void> lookFor(model::IntentNumber intent, std::vector<model::ItemNumber> folders);
  void waitUntil(model::ItemNumber item, model::Time time);
  void settle(model::ItemNumber item, const plan::Settle& step);
  bool isParked(model::ItemNumber item) const;
  plan::Push wholePush(const plan::Push& push) const;
  void push(model::ItemNumber item, const plan::Push& planned);
  void start(model::ItemNumber item, Task<void> task);
  Task<void> run(model::ItemNumber item, Task<void> task);
  void finish(model::ItemNumber item, std::optional<std::chrono::milliseconds> delay);
  void end(model::ItemNumber item);
  void checkWaiters();

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Reach& health_;
  const Options& options_;
  const pull::Settler& settler_;
  pull::Refresher& refresher_;
  pull::Downloader& downloader_;
  Push& push_;
  Refusals& refusals_;
  OpenWait& openWait_;

  /// When requests without an answer are to be looked after next. On the loop.
  std::optional<model::Time> tendAt_;
  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Entry> entries_;
  std::uint64_t lastOrder_ = 0;
  std::set<std::pair<async::Loop::Moment, model::ItemNumber>> delayed_;
  // By whether it is a large upload, then by age.
  std::map<Key, model::ItemNumber> readyNames_;
  std::map<Key, model::ItemNumber> readyContents_;
  std::unordered_map<model::ItemNumber, std::set<model::ItemNumber>> blocked_;
  unsigned namesRunning_ = 0;
  unsigned contentsRunning_ = 0;
  std::optional<std::pair<async::Loop::Moment, async::Loop::TimerNumber>> timer_;
  /// Requests without an answer that are being looked for.
  std::set<model::IntentNumber> looking_;
  bool isPumping_ = false;
  bool isStopped_ = false;
  std::vector<std::shared_ptr<OneShot<void>>> syncWaiters_;
};

}  // namespace kestrowan::replica::push
