#pragma once

#include <sys/stat.h>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/base/OneShot.h"
#include "platform/foundation/NSError.h"
#include "replica/Contents.h"
#include "replica/Listing.h"
#include "replica/Records.h"
#include "replica/Walk.h"

namespace kestrowan::replica {

/// What is known of a folder beyond its record, while the process lives.
struct FolderRuntime {
  /// Milliseconds.
  std::int64_t lastDuration = 0;
  /// Milliseconds since 1970-01-01 UTC.
  std::int64_t lastUse = 0;
  unsigned open = 0;
  bool listing = false;
  /// Another listing must begin when this one has ended: it began too early for somebody.
  bool listAgain = false;
  /// A timer will list it anew while it is in use.
  bool watched = false;
  struct ListingWaiter {
    Completion<ListingPtr> completion;
    /// A listing that failed for a passing reason is to be tried again for this one.
    bool insists = false;
  };
  std::vector<ListingWaiter> listingWaiters;
  std::vector<ListingWaiter> nextListingWaiters;

  /// The provider's entries that cannot be shown, because something else has their name here.
  std::unordered_map<std::string, Listing::Entry> shadowed;
  /// Over the files in it, and over the folders.
  Walk fileWalk;
  Walk folderWalk;
  /// Names that the provider no longer has by a change of ours, and when that was confirmed.
  std::unordered_map<std::string, Sequence> left;
  /// Materialised items that the last listings lacked and since when, in milliseconds of uptime;
  /// they await another listing that agrees.
  std::unordered_map<Rid, std::int64_t> missing;
  /// Of a listing that lost suspiciously much, and was not applied; 0 for none.
  std::uint64_t suspectedDigest = 0;
  std::int64_t suspectedAt = 0;
  /// How many of the last listings in a row did not come whole.
  std::uint32_t partialListings = 0;
};

/// What is known of an item's way to the provider, while it is on it.
struct SyncRuntime {
  enum class Place : std::uint8_t { idle, delayed, ready, blocked, sending };

  Place place = Place::idle;
  /// Key in the queue; keeps the order in which changes were made.
  std::uint64_t order = 0;
  /// Milliseconds since 1970-01-01 UTC: when it was changed last.
  std::int64_t changedAt = 0;
  /// Milliseconds of uptime: when it may be sent.
  std::int64_t due = 0;
  /// The same: when contents that somebody still had open were sent last; and how long it took to
  /// copy them for who went on writing.
  std::optional<std::int64_t> sentOpenAt;
  std::int64_t copyTime = 0;
  /// Where the request in flight puts the item, and whether it concerns everything below it.
  Rid targetParent = 0;
  std::string targetName;
  bool wholeFolder = false;
  /// The folders in which the request in flight changes something.
  std::vector<Rid> changedFolders;
  /// Whoever waits for the provider's word; without one they get an error, or success.
  struct VerdictWaiter {
    Completion<Done> completion;
    /// Who it is.
    std::shared_ptr<void> once;
    bool needsWord = false;
    /// The request in flight has everything that this one waits for.
    bool isCovered = false;
  };
  std::vector<VerdictWaiter> verdictWaiters;
  /// Items that must wait until this one's request has ended, and fetches that do.
  std::vector<Rid> blocked;
  std::vector<std::shared_ptr<OneShot<void>>> endWaiters;
  /// Contents on their way to the provider.
  ContentNumber frozen = 0;
  /// A listing said that what is removed here was changed at the provider.
  bool changedThere = false;
  /// A refusal of contents that no `close` has reported yet.
  std::optional<NSError> unreported;
};

/// One item, as it is in memory. Guarded by the replica's lock; shared by pointer.
struct Item : ItemRecord {
  /// No longer in the tree: removed for good, or replaced.
  bool gone = false;
  /// The size with which its contents went to the history; absent while they are its own.
  std::optional<std::int64_t> sizeInHistory;
  /// To be sent although somebody has it open for writing.
  bool sendNow = false;
  /// Its contents changed since its row was written.
  bool datesAreUnwritten = false;
  /// How often the kernel knows it, how many handles there are, and how many of them may write.
  std::uint64_t lookups = 0;
  std::uint32_t handles = 0;
  std::uint32_t writers = 0;
  /// When what the provider has was last learnt from an answer to a change of ours.
  Sequence confirmed = 0;
  /// Milliseconds of uptime: the last write.
  std::int64_t lastWrite = 0;
  /// Waiters of a fetch in flight; the fetch is in flight while this is there.
  std::unique_ptr<std::vector<Completion<Done>>> fetching;
  std::weak_ptr<Contents> contents;
  std::unique_ptr<FolderRuntime> folder;
  std::unique_ptr<SyncRuntime> sync;

  bool isFolder() const { return kind == ItemKind::folder; }
  /// Removed or replaced here, while a program that came upon its name before may still open it.
  bool isLeftOver() const { return gone && removed && content != 0; }
  bool isSending() const { return sync && sync->place == SyncRuntime::Place::sending; }

  /// Contents that others may have written run with the rights of the user that runs them alone.
  /// Whether they would have.
  bool dropPrivileges() {
    constexpr std::uint16_t kPrivileges = S_ISUID | S_ISGID;
    if (isFolder() || (mode.value_or(0) & kPrivileges) == 0) return false;
    *mode &= static_cast<std::uint16_t>(~kPrivileges);
    return true;
  }

  /// What has to be made true at the provider.
  bool mustCreate() const { return !base && !removed && !localOnly; }
  bool mustRemove() const { return base && removed; }
  bool mustMove() const {
    return base && !removed && !localOnly && (base->parent != parent || base->name != name);
  }
  bool mustSendContents() const { return base && !removed && !localOnly && contentsChanged; }
  /// Removed while nobody knows whether the provider has got it.
  bool mustSettle() const { return !base && removed && sent; }
  bool isPending() const {
    return !gone && rid != kRootRid &&
           (mustCreate() || mustRemove() || mustMove() || mustSendContents() || sent);
  }
};

using ItemPtr = std::shared_ptr<Item>;

}  // namespace kestrowan::replica
