#pragma once

#include <functional>
#include <unordered_set>
#include <vector>

#include "replica/Core.h"
#include "replica/Listing.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica {

/// Keeps folders as the provider has them: decides when a folder is listed, has one listing of each
/// in flight at most, and applies what it says.
class Lister {
 public:
  /// `changed` is told, locked, of each item that has to be sent because of a listing.
  Lister(Core& core, remote::Health& health, std::function<void(const ItemPtr&)> changed);

  /// How sure the answer has to be.
  enum class Need {
    usable,  // a listing of the last half minute
    fresh,   // of the last two seconds
    soon,    // the same, for who keeps others waiting meanwhile
    forced,  // one that begins now
  };

  /// Completes once the folder's children are known as well as needed, or with the error that
  /// prevents it. Waits for a server that is not there, if the folder is not known and for as long
  /// as `Health` does. Waits no longer than the options say when the children are known from
  /// before, and then succeeds with what there is, unless the need is `forced`; and no longer than
  /// that, for a caller that needs it `soon`, when nothing is known. Without the lock.
  void prepare(const ItemPtr& folder, Need need, Completion<Done> completion);

  /// A listing that begins now or after this call. Without the lock; completes on the loop.
  void list(const ItemPtr& folder, Completion<ListingPtr> completion);
  /// The same for a coroutine on the loop; throws what prevents it.
  Task<ListingPtr> listed(ItemPtr folder);

  /// Whether what is known of the folder's children can be acted on at the provider: a listing of
  /// the last two seconds, or of twice the time that listing the folder takes. Locked.
  bool isCertain(const Item& folder) const;
  bool isKnown(const Item& folder) const;
  /// Whether what a listing of the folder lacks is not there. Locked.
  bool isComplete(const ItemPtr& folder, const Listing& listing) const;

  // Locked.

  /// Lists the folder soon, for nobody in particular.
  void look(const ItemPtr& folder);
  void setOpen(const ItemPtr& folder, bool open);

  /// Shows an entry that could not be shown before, should its name be free now.
  void insert(const ItemPtr& folder, const Listing::Entry& entry);
  /// Applies a listing, unless it lacks so much that another must agree first; whether it did.
  /// Locked; for `list`, and for tests of it.
  bool apply(const ItemPtr& folder, const Listing& listing);

 private:
  struct Waiter;

  bool isRecent(const Item& folder, std::int64_t within, std::int64_t factor) const;
  bool isFresh(const Item& folder, std::int64_t within) const;
  void begin(const ItemPtr& folder);
  Task<void> run(ItemPtr folder);
  Task<ListingPtr> ask(ItemPtr folder);
  Task<NSError> explained(ItemPtr folder, NSError error);
  bool answerUnlessInsistent(const ItemPtr& folder, const NSError& error);
  Task<void> prepareOnceReached(ItemPtr folder, Need need, Completion<Done> completion);
  void finish(const ItemPtr& folder, Outcome<ListingPtr> outcome);
  void take(const ItemPtr& folder, Listing& listing, std::int64_t at,
            std::chrono::milliseconds duration);
  void noteWholeness(const ItemPtr& folder, bool whole);
  void listLater(const ItemPtr& folder, std::chrono::milliseconds delay);
  void watch(const ItemPtr& folder);
  void walked(const ItemPtr& folder);

  // What applying consists of.
  bool isSuspicious(const ItemPtr& folder, const Listing& listing);
  bool isSame(const Item& item, const Base& listed) const;
  void update(const ItemPtr& item, const Listing::Entry& entry);
  void updateDate(const ItemPtr& item, const Base& listed);
  void replaceContents(const ItemPtr& item, const Base& base);
  void vanish(const ItemPtr& item, bool certain);
  void add(const ItemPtr& folder, const Listing::Entry& entry);
  void tellFolders();
  bool holdsChanges(const ItemPtr& folder) const;
  bool holdsContents(const ItemPtr& folder) const;
  void showBase(const ItemPtr& item);

  Core& core_;
  remote::Health& health_;
  const std::function<void(const ItemPtr&)> changed_;
  /// Those in which a listing made entries come or go, until they are shown as modified.
  std::unordered_set<Rid> changedFolders_;
};

}  // namespace kestrowan::replica
