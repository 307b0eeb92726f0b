#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "replica/Core.h"
#include "replica/Fetcher.h"
#include "replica/Lister.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica {

/// Makes true at the provider what applications did here. What is to be done is always the
/// difference between what an item is here and what the provider confirmed of it, so changes that
/// were not sent yet coalesce; requests about places that overlap follow one another.
///
/// Its calls are locked, but for what says otherwise.
class Sender {
 public:
  /// A file that somebody keeps open for writing is sent after so long without a write.
  static constexpr std::chrono::milliseconds kQuietTime{30000};

  Sender(Core& core, remote::Health& health, Lister& lister, Fetcher& fetcher);

  /// The item may have to be sent, no earlier than after `delay`. A failure from before is
  /// forgotten.
  void changed(const ItemPtr& item, std::chrono::milliseconds delay);
  /// The item is no longer in the tree, or has nothing to send any more.
  void withdraw(const ItemPtr& item);
  /// Completes with the provider's word on what is to be sent of the item: success also when there
  /// is none within `limit`, or none to be had.
  void awaitVerdict(const ItemPtr& item, std::chrono::milliseconds limit,
                    Completion<Done> completion);
  /// The same for who must know that it arrived: `ETIMEDOUT` when there is no word within `limit`,
  /// and what `Health` gives as the reason when the provider cannot be asked.
  void awaitArrival(const ItemPtr& item, std::chrono::milliseconds limit,
                    Completion<Done> completion);
  /// The item, which is a file and has contents here, replaces another file at the provider:
  /// becomes its new contents, and what it was itself goes afterwards.
  void takeOver(const ItemPtr& item, const ItemPtr& replaced);
  /// The provider can be asked again, or cannot any more.
  void healthChanged();
  /// Ends the item's waiting time.
  void retry(const ItemPtr& item);
  /// Completes once nothing is to be sent that could be; EIO when only refused changes are left,
  /// ETIMEDOUT after `limit`. Without the lock.
  void waitUntilSynced(std::chrono::milliseconds limit, Completion<Done> completion);
  /// Enqueues what was pending when the process ended. For the beginning.
  void restore();
  /// Answers whoever waits.
  void stop();

  /// Runs what can run. Without the lock, on the loop.
  void pump();

 private:
  using Place = SyncRuntime::Place;
  struct SyncWaiter;

  // The queue.
  void enqueue(const ItemPtr& item, std::chrono::milliseconds delay);
  void unqueue(const ItemPtr& item);
  void retryAll();
  void schedule();
  void makeReady(const ItemPtr& item);
  void startReady(std::map<std::pair<bool, std::uint64_t>, Rid>& ready, unsigned& running,
                  unsigned limit);
  ItemPtr blocker(const ItemPtr& item) const;
  ItemPtr placeBlocker(const ItemPtr& item) const;
  ItemPtr removalBlocker(const ItemPtr& item) const;
  std::chrono::milliseconds openWait(const ItemPtr& item) const;
  void takeOverIfPossible(const ItemPtr& item);
  ItemPtr successor(const ItemPtr& item) const;
  bool isInCycle(const ItemPtr& item) const;
  void start(const ItemPtr& item, bool isUpload);
  void doubtFolderDates(const ItemPtr& item);
  void release(const ItemPtr& item);
  void finish(const ItemPtr& item, bool isUpload);
  void checkWaiters();

  // The requests. `fail` takes care of the provider's errors; those of this machine, such as a full
  // disk, leave `send` and are taken care of by `run`.
  Task<void> run(ItemPtr item, bool isUpload);
  Task<void> send(ItemPtr item);
  Task<void> sendCreation(ItemPtr item);
  Task<void> sendChange(ItemPtr item);
  Task<void> sendRemoval(ItemPtr item);
  /// Whether the contents at the provider are still those that ours are based on; decides what
  /// becomes of ours when they are not.
  Task<bool> mayReplace(ItemPtr item);
  Task<bool> mayRemove(ItemPtr item);
  Task<std::optional<Base>> lookAt(Base known, ItemPtr folder);
  Task<ListingPtr> listOrFail(ItemPtr item, ItemPtr folder);
  bool keepIfChanged(const ItemPtr& item, const Base& atProvider);
  Task<bool> isEmptyAtProvider(ItemPtr folder);
  /// Whether a file at the provider holds the bytes of `content`. Throws why that cannot be found
  /// out.
  Task<bool> holdsSameBytes(Base base, ContentNumber content, std::int64_t sentAt);
  /// Finds out what became of a request without an answer. Whether that could be found out.
  Task<bool> verify(ItemPtr item);
  Task<void> settleCollision(ItemPtr item, Listing::Entry entry);
  /// Whether the provider already has the very bytes of the item's contents, which then count as
  /// sent. Throws why that cannot be found out.
  Task<bool> adoptIfSame(ItemPtr item, Base atProvider);

  /// Contents that will not change while they are sent: their number, path and size.
  struct Frozen {
    ContentNumber number = 0;
    std::string path;
    std::int64_t size = 0;
  };
  Task<void> write(ItemPtr item, Task<remote::WrittenItem> request, Rid parent, std::string name,
                   Frozen frozen);
  /// Without the lock.
  Frozen freeze(const ItemPtr& item);
  /// Ends that; `sent` when the provider has them now. Without the lock.
  void thaw(const ItemPtr& item, const Frozen& frozen, bool sent);

  // What came of them.
  void noteSent(const ItemPtr& item, const Frozen& frozen, Rid parent, const std::string& name);
  bool accept(const ItemPtr& item, const remote::WrittenItem& written, Rid parent,
              const std::string& name, const Frozen& frozen);
  void leaveBehind(const Item& item, Base base);
  void acceptRemoval(const ItemPtr& item);
  void fail(const ItemPtr& item, const NSError& error);
  void backOffLater(const ItemPtr& item, const NSError& error);
  void postpone(const ItemPtr& item, const NSError& error, FailureClass failureClass,
                std::chrono::milliseconds delay);
  static bool isAwaitedChangeOfNames(const Item& item);
  void refuse(const ItemPtr& item, const NSError& error);
  void rollBack(const ItemPtr& item);
  void resurrect(const ItemPtr& item, const NSError& reason);
  void bounce(const ItemPtr& item);
  void makeConflict(const ItemPtr& item, const Base& atProvider);
  void await(const ItemPtr& item, std::chrono::milliseconds limit, bool needsWord,
             Completion<Done> completion);
  static void coverWaiters(const ItemPtr& item);
  void answerCovered(const ItemPtr& item);
  void answerWithoutWord(const ItemPtr& item, const NSError& reason);
  void answerVerdict(const ItemPtr& item, const std::optional<NSError>& error);
  std::string freeName(const ItemPtr& folder, const std::function<std::string(unsigned)>& name,
                       unsigned first) const;

  Core& core_;
  remote::Health& health_;
  Lister& lister_;
  Fetcher& fetcher_;

  std::uint64_t lastOrder_ = 0;
  std::set<std::pair<std::int64_t, Rid>> delayed_;
  // By whether it is a large upload, then by age.
  std::map<std::pair<bool, std::uint64_t>, Rid> readyNames_;
  std::map<std::pair<bool, std::uint64_t>, Rid> readyContents_;
  std::set<Rid> blocked_;
  unsigned namesRunning_ = 0;
  unsigned contentsRunning_ = 0;
  std::optional<std::pair<std::int64_t, async::Loop::TimerNumber>> timer_;
  std::vector<std::shared_ptr<SyncWaiter>> syncWaiters_;
};

}  // namespace kestrowan::replica
