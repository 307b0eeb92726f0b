#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"
#include "replica/Options.h"
#include "replica/model/Tree.h"
#include "replica/pull/FolderWaiters.h"
#include "replica/pull/Freshness.h"
#include "replica/pull/ListingMerge.h"
#include "replica/pull/Look.h"
#include "replica/pull/LooksUnderWay.h"
#include "replica/pull/Touches.h"
#include "replica/remote/Health.h"
#include "replica/remote/Provider.h"

namespace kestrowan::replica::pull {

/// Looks at folders: asks the provider for their listings, again where that failed in passing, and
/// has them written. What they leave in doubt is looked for once more. Owned by the refresher.
/// Calls may come from every thread; coroutines continue on the loop. Throws `NSError`.
class Looks {
 public:
  /// All must outlive it.
  Looks(model::Tree& tree, async::Scope& scope, remote::Provider& provider, remote::Health& health,
        const Options& options, const ListingMerge& merge, NameForms& forms, Touches& touches,
        Freshness& freshness);
  Looks(const Looks&) = delete;
  Looks& operator=(const Looks&) = delete;

  /// Lists folders anew, as one look, and writes what they show. A folder that the provider has not
  /// got, or that is not known, is left out. Throws what prevents a listing. Looks at one folder
  /// that wait for their turn are one.
  Task<void> look(std::vector<model::ItemNumber> folders);
  /// The end of a look at the folder, which begins unless it has; see `FolderWaiters::join`.
  FolderWaiters::Shot join(model::ItemNumber folder, bool fromNow, bool isInsistent);
  /// Lists the folder, unless it is being listed, for no caller in particular.
  void lookSoon(model::ItemNumber folder);
  void lookAfter(model::ItemNumber folder, std::chrono::milliseconds delay);
  /// On the loop.
  const LooksUnderWay& underWay() const { return underWay_; }
  LooksUnderWay& underWay() { return underWay_; }
  /// Whether a listing lacked the item, and that is not believed yet. On the loop.
  bool isMissing(model::ItemNumber item) const { return doubts_.missing.contains(item); }
  /// Begins no more listings, and answers the calls that wait for one.
  void stop();

 private:
  void begin(model::ItemNumber folder);
  Task<void> run(model::ItemNumber folder);
  Task<void> lookNow(std::vector<model::ItemNumber> folders, model::ItemNumber asker);
  Task<void> pause(std::chrono::milliseconds time);
  Task<bool> lookOnce(std::vector<model::ItemNumber> folders, model::ItemNumber asker);
  Task<Look::Outcome> writeInSlices(std::shared_ptr<Look> look);
  Task<void> gather(std::shared_ptr<Look> look, model::ItemNumber asker);
  Task<std::shared_ptr<const FolderListing>> list(model::ItemNumber folder,
                                                  NSFileProviderItemIdentifier identifier,
                                                  model::ItemNumber asker);
  Task<std::vector<NSFileProviderItemPtr>> ask(NSFileProviderItemIdentifier identifier,
                                               model::ItemNumber asker);
  NSError requireDoubt(model::ItemNumber folder, const NSError& error);
  void noteWholeness(model::ItemNumber folder, bool isWhole);

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Provider& provider_;
  remote::Health& health_;
  const Options& options_;
  const ListingMerge& merge_;
  NameForms& forms_;
  Touches& touches_;
  Freshness& freshness_;
  FolderWaiters waiters_;

  LooksUnderWay underWay_;

  /// What listings lacked and is not believed yet. On the loop, as the next one.
  plan::Doubts doubts_;
  std::mt19937_64 random_;
  std::mutex mutex_;  // guards what follows; a leaf
  bool isStopped_ = false;
  std::vector<std::weak_ptr<OneShot<void>>> pauses_;
};

}  // namespace kestrowan::replica::pull
