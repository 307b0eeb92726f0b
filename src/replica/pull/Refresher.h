#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "async/Scope.h"
#include "platform/base/Task.h"
#include "replica/Options.h"
#include "replica/model/Tree.h"
#include "replica/pull/FoldersInUse.h"
#include "replica/pull/Freshness.h"
#include "replica/pull/ListingMerge.h"
#include "replica/pull/Looks.h"
#include "replica/pull/Touches.h"
#include "replica/remote/Health.h"
#include "replica/remote/Provider.h"

namespace kestrowan::replica::pull {

/// Decides when a folder is listed. Owned by the replica. Calls may come from every thread;
/// coroutines continue on the loop. Throws `NSError`.
class Refresher {
 public:
  /// All must outlive it.
  Refresher(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
            remote::Health& health, const Options& options, const ListingMerge& merge,
            NameForms& forms, Touches& touches);
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
  /// Whether `prepare` would end at once, and with success. Takes note of the use then.
  bool isPrepared(model::ItemNumber folder, Need need);

  /// See `Looks`.
  Task<void> look(std::vector<model::ItemNumber> folders) {
    return looks_.look(std::move(folders));
  }
  void lookSoon(model::ItemNumber folder) { looks_.lookSoon(folder); }
  /// See `LooksUnderWay`. On the loop.
  bool isLooking(const std::vector<model::ItemNumber>& folders) const {
    return looks_.underWay().isAtAny(folders);
  }
  Task<void> endOfLooks(std::vector<model::ItemNumber> folders) {
    return looks_.underWay().end(std::move(folders));
  }
  bool isMissing(model::ItemNumber item) const { return looks_.isMissing(item); }
  /// See `FoldersInUse`.
  void setOpen(model::ItemNumber folder, bool isOpen) { inUse_.setOpen(folder, isOpen); }
  void setWatched(const std::vector<model::ItemNumber>& items, std::chrono::milliseconds interval) {
    inUse_.setWatched(items, interval);
  }
  bool isWatched(model::ItemNumber folder) const { return inUse_.isWatched(folder); }
  bool isAnyWatched() const { return inUse_.watchedCount() > 0; }
  std::size_t watchedCount() const { return inUse_.watchedCount(); }
  /// See `Freshness`.
  bool isCertain(const model::Item& folder) const { return freshness_.isCertain(folder); }
  bool isPartial(model::ItemNumber folder) const { return freshness_.isPartial(folder); }
  bool mayLackNames(model::ItemNumber folder) const { return freshness_.mayLackNames(folder); }
  std::vector<model::ItemNumber> partialFolders() const { return freshness_.partialFolders(); }
  std::int64_t partialListings() const { return freshness_.partialListings(); }
  std::int64_t refusedEntries() const { return freshness_.refusedEntries(); }
  /// Begins no more listings, and answers the calls that wait for one.
  void stop() { looks_.stop(); }

 private:
  /// What a caller that wants a folder prepared gets: `server`: there must be one first.
  enum class Answer : std::uint8_t { now, server, background, wait };

  Answer answerFor(const model::Item& folder, Need need) const;
  Task<void> await(model::ItemNumber folder, Need need, bool isKnown);

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Health& health_;
  const Options& options_;
  Freshness freshness_;
  Looks looks_;
  FoldersInUse inUse_;
};

}  // namespace kestrowan::replica::pull
