#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "async/Loop.h"
#include "async/Scope.h"
#include "platform/foundation/Logger.h"
#include "replica/Departures.h"
#include "replica/FilePlaces.h"
#include "replica/ItemTable.h"
#include "replica/Observer.h"
#include "replica/Options.h"
#include "replica/Replica.h"
#include "replica/Rows.h"
#include "replica/Tally.h"
#include "replica/remote/Provider.h"
#include "replica/store/ItemStore.h"

namespace kestrowan::replica {

/// Since 1970-01-01 UTC.
std::int64_t nanoseconds(const timespec& time);

/// `now`, or a nanosecond after `before` where that is later.
std::int64_t laterThan(std::int64_t before, std::int64_t now);

/// What the parts of a replica share: the items, their rows, their contents, the provider, and the
/// one lock that guards the items. Owned by the replica, and outlives its parts.
///
/// Lock order: a file's `Contents::preparing`, its `Contents::mutex`, then `mutex`. Nothing is
/// called back under the lock but the observer. What is marked "locked" is called with the lock
/// held.
struct Core {
  Core(const std::string& directory, async::Loop& loop, Options options);
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  /// Nothing runs on the loop any more that uses what goes now.
  ~Core() { loop.close(); }

  const Options options;
  async::Scope loop;
  ItemStore store;
  ContentFiles contents;
  remote::Provider provider;

  mutable std::mutex mutex;  // guards what follows, and the store but for its `sync`
  Rows rows;
  Departures departures{*this};
  ItemTable table;
  Tally tally;
  FilePlaces places;
  Observer* observer = nullptr;
  Sequence sequence = 0;
  bool refusesNewWork = false;
  bool stopped = false;
  /// Items with a request in flight.
  std::vector<ItemPtr> sending;
  /// Items of which a request may have reached the provider, or had.
  std::vector<ItemPtr> unsettled;
  std::vector<std::string> conflicts;
  std::int64_t refusedEntries = 0;
  std::int64_t partialListings = 0;
  std::mt19937_64 random;
  /// Told, locked, of each item that has been taken out of the tree.
  std::function<void(const ItemPtr&)> dropped;

  /// Milliseconds, nanoseconds and whole seconds since 1970-01-01 UTC.
  std::int64_t milliseconds() const { return loop.wallClock(); }
  std::int64_t nanoseconds() const { return loop.wallClock() * 1'000'000; }
  std::int64_t seconds() const { return loop.wallClock() / 1000; }
  /// Milliseconds of a clock that is never set.
  std::int64_t uptime() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(loop.now().time_since_epoch())
        .count();
  }

  // Locked.

  /// Throws ESTALE for an item that is not known.
  ItemPtr require(Rid rid) const;
  /// The same for a folder of the tree; ENOTDIR for a file, ESTALE for one that is gone.
  ItemPtr requireFolder(Rid rid) const;
  Attributes attributes(const Item& item) const;
  bool mayWrite(const Item& item) const;
  /// Throws EROFS when nothing new may be begun.
  void requireNewWork() const;
  /// A new item, not yet in the table.
  ItemPtr makeItem(Rid parent, std::string name, ItemKind kind);
  FolderRuntime& folder(const ItemPtr& item);
  SyncRuntime& sync(const ItemPtr& item);
  void save(const ItemPtr& item) {
    tally.note(*item);
    item->datesAreUnwritten = false;
    rows.save(item);
  }
  /// Takes an item out of the tree, and its row from the disk; its contents go to the history. Open
  /// handles go on.
  void dropItem(const ItemPtr& item, HistoryReason reason);
  /// Whether contents are on their way to the provider, or may have arrived there: they must not
  /// change, and are needed to find out.
  bool areNeeded(const Item& item, ContentNumber number) const;
  /// It is known what became of the request; contents that only that was about go.
  void forgetSent(const ItemPtr& item);
  /// Frees what nobody knows any more.
  void releaseIfUnused(const ItemPtr& item);
  /// Changes what the provider is known to have, in the table and on disk; identifiers below a
  /// folder change with it.
  void setBase(const ItemPtr& item, std::optional<Base> base);
  /// Something that programs see of the item changes now.
  void stamp(Item& item) const { item.changed = laterThan(item.changed, nanoseconds()); }
  /// Something was made, removed or renamed in the folder: it is modified now.
  void noteFolderChange(Rid folder);
  /// The same for what no program did here: the observer is told of the folder's attributes.
  void showFolderChange(Rid folder);
  /// Gives an item another place, which no program did here. Tells of both names.
  void moveInView(const ItemPtr& item, Rid parent, std::string name);
  /// A request that begins or ends changes something in the folder, and with that the provider's
  /// date of it. The next one that a listing shows is taken as known, and programs are not told.
  void doubtFolderDate(Rid folder);
  /// The provider confirmed a change of ours just now.
  void confirm(const ItemPtr& item) { item->confirmed = ++sequence; }
  /// Whether a request in flight puts an item there, or one of which nobody knows what it did.
  bool isBeingSentTo(Rid folder, std::string_view name) const;
  /// The item that a request may have put there; null when there is none.
  ItemPtr unsettledAt(Rid folder, std::string_view name) const;
  void entryChanged(Rid folder, const std::string& name);
  void itemChanged(Rid item, bool contents);

  /// Completes from the loop, without the lock.
  template <typename T>
  void answer(Completion<T> completion, Outcome<T> outcome) {
    loop.post([completion = std::move(completion), outcome = std::move(outcome)]() mutable {
      completion(std::move(outcome));
    });
  }

  /// One line about an item for the user of the host. `what` is a literal and tells its kind.
  void log(std::string_view what, const Item& item, std::string_view detail = {}) const;
};

/// Nanoseconds of a base's date, or the nearest that there are; of 1970 when it has none.
std::int64_t modifiedOf(const Base& base);

}  // namespace kestrowan::replica
