#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <unordered_map>
#include <vector>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"
#include "replica/Options.h"
#include "replica/model/Edit.h"
#include "replica/pull/ListingMerge.h"
#include "replica/pull/Touches.h"
#include "replica/remote/Provider.h"
#include "replica/remote/Reach.h"

namespace kestrowan::replica::pull {

/// Decides when a folder is listed, has one ordinary listing of each on its way at most, and writes
/// what listings show. Owned by the replica. Calls may come from every thread; coroutines continue
/// on the loop. Throws `NSError`.
class Refresher {
 public:
  Refresher(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
            remote::Reach& health, const Options& options, const ListingMerge& merge,
            Touches& touches);
  Refresher(const Refresher&) = delete;
  Refresher& operator=(const Refresher&) = delete;

  /// How sure the answer has to be.
  enum class Need : std::uint8_t {
    usable,  // a listing of the last half minute
    fresh,   // of the last two seconds
    soon,    // the same, for a caller that keeps others waiting meanwhile
    forced,  // one that begins now
  };

  /// Ends once what is in the folder is known as well as needed; throws what prevents that. Waits
  /// no longer than the options say when it is known from before, and then ends with what there is,
  /// unless the need is `forced`; and no longer than that, for the need `soon`, when nothing is
  /// known. ESTALE for a folder that is not here any more.
  Task<void> prepare(model::ItemNumber folder, Need need);
  /// Whether `prepare` would end at once, and with success.
  bool isPrepared(model::ItemNumber folder, Need need);

  /// Lists folders anew, as one look, and writes what they show. A folder that the provider has not
  /// got, or that is not known, is left out. Throws what prevents a listing. Looks at one folder
  /// that wait for their turn are one.
  Task<void> look(std::vector<model::ItemNumber> folders);

  /// Whether what is known of the folder can be acted on at the provider: a listing of the last two
  /// seconds, or of twice the time that listing the folder takes.
  bool isCertain(const model::Item& folder) const;
  /// Whether the last listing of the folder proves nothing by what it lacks.
  bool isPartial(model::ItemNumber folder) const;
  /// Whether it may lack names that a file here can have.
  bool mayLackNames(model::ItemNumber folder) const;
  static bool isKnown(const model::Item& folder);

  /// Lists the folder soon, for no caller in particular.
  void lookSoon(model::ItemNumber folder);
  void lookAfter(model::ItemNumber folder, std::chrono::milliseconds delay);
  /// A program has opened the folder, or closed it.
  void setOpen(model::ItemNumber folder, bool isOpen);
  /// Folders whose last listing did not come whole.
  std::vector<model::ItemNumber> partialFolders() const;
  std::int64_t partialListings() const;
  std::int64_t refusedEntries() const;
  /// Begins no more listings.
  void stop();

 private:
  struct Waiter {
    std::shared_ptr<OneShot<void>> shot;
    /// It can do nothing without a listing.
    bool isInsistent = false;
  };
  using Waiters = std::vector<Waiter>;

  /// What is known of a folder while the process lives.
  struct Folder {
    std::chrono::milliseconds lastDuration{0};
    /// Uptime.
    std::optional<async::Loop::Moment> lastUse;
    unsigned open = 0;
    bool isListing = false;
    /// Another listing begins when this one has ended: it began too early for a caller.
    bool listAgain = false;
    /// A timer will list it anew while it is in use.
    bool isWatched = false;
    std::uint32_t partialListings = 0;
    /// Its last listing proves nothing by what it lacks.
    bool isUnproved = false;
    /// Some of its entries were not admitted.
    bool hasRefused = false;
    Waiters waiters;
    Waiters nextWaiters;
  };
  /// One look on its way.
  struct Look;
  /// What a caller that wants a folder prepared gets: `server`: there must be one first.
  enum class Answer : std::uint8_t { now, server, background, wait };

  model::Time now() const;
  bool isRecent(const model::Item& folder, std::chrono::milliseconds within, int factor) const;
  Answer answerFor(const model::Item& folder, Need need) const;
  void noteUse(const model::Item& folder);
  void begin(model::ItemNumber folder);
  Task<void> run(model::ItemNumber folder);
  Task<void> await(model::ItemNumber folder, Need need, bool isKnown);
  std::shared_ptr<OneShot<void>> join(model::ItemNumber folder, Need need, bool isInsistent);
  bool answerUnlessInsistent(model::ItemNumber folder, const NSError& error);
  Task<void> lookNow(std::vector<model::ItemNumber> folders, model::ItemNumber asker);
  Task<void> pause(std::chrono::milliseconds time);
  Task<bool> lookOnce(std::vector<model::ItemNumber> folders, model::ItemNumber asker);
  Task<void> gather(std::shared_ptr<Look> look, std::vector<model::Path> paths);
  Task<std::vector<NSFileProviderItemPtr>> ask(NSFileProviderItemIdentifier identifier,
                                               model::ItemNumber asker);
  Task<std::shared_ptr<const FolderListing>> list(model::ItemNumber folder,
                                                  NSFileProviderItemIdentifier identifier,
                                                  model::ItemNumber asker);
  NSError requireDoubt(model::ItemNumber folder, const NSError& error);
  void finish(model::ItemNumber folder, const std::exception_ptr& error);
  void noteDoubts(const model::State& state, const FolderListings& listings,
                  plan::Written& written);
  void noteWholeness(model::ItemNumber folder, bool isWhole);
  void watch(model::ItemNumber folder);

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Provider& provider_;
  remote::Reach& health_;
  const Options& options_;
  const ListingMerge& merge_;
  Touches& touches_;

  /// What listings lacked and is not believed yet. On the loop.
  plan::Doubts doubts_;
  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Folder> folders_;
  std::mt19937_64 random_;
  std::int64_t partialListings_ = 0;
  std::int64_t refusedEntries_ = 0;
  bool isStopped_ = false;
  std::vector<std::weak_ptr<OneShot<void>>> pauses_;
};

}  // namespace kestrowan::replica::pull
