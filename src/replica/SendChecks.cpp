#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "platform/base/UniqueFd.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/Sender.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica {

namespace {

/// Files up to this size are fetched to be compared; of larger ones size and date decide.
constexpr std::int64_t kComparedSize = std::int64_t{16} << 20;
/// How much a server's clock and its whole seconds may differ from ours.
constexpr std::int64_t kDateTolerance = 2;
/// A request whose sender died may still take effect for so many seconds.
constexpr std::int64_t kLandingTime = 10;

/// Why nothing is sent that a whole answer would have to allow.
NSError partialAnswer() {
  return NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse);
}

bool filesAreEqual(const std::string& a, const std::string& b) {
  const UniqueFd first(::open(a.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  const UniqueFd second(::open(b.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!first || !second) return false;
  std::array<char, 65536> left;
  std::array<char, 65536> right;
  for (off_t at = 0;;) {
    const ssize_t read = ::pread(first.get(), left.data(), left.size(), at);
    if (read < 0 || ::pread(second.get(), right.data(), right.size(), at) != read) return false;
    if (read == 0) return true;
    if (!std::equal(left.begin(), left.begin() + read, right.begin())) return false;
    at += read;
  }
}

}  // namespace

Task<bool> Sender::mayReplace(ItemPtr item) {
  Base known;
  ItemPtr folder;
  {
    std::lock_guard lock(core_.mutex);
    known = *item->base;
    folder = core_.table.find(known.parent);
  }
  std::optional<Base> found;
  std::optional<NSError> failure;
  try {
    auto look = lookAt(known, folder);
    found = co_await std::move(look);
  } catch (const NSError& error) {
    failure = error;
  }
  if (failure) {
    std::lock_guard lock(core_.mutex);
    fail(item, *failure);
    co_return false;
  }
  {
    std::lock_guard lock(core_.mutex);
    if (!item->base || item->gone) co_return false;
    if (!found) {
      // Removed there, changed here: what was changed lives on.
      core_.setBase(item, std::nullopt);
      co_return false;
    }
    if (canBeSame(core_.options, *item->base, *found)) co_return true;
  }
  // What was sent before a power failure may have been forgotten by it.
  bool same = false;
  try {
    auto comparison = adoptIfSame(item, *found);
    same = co_await std::move(comparison);
  } catch (const NSError& error) {
    failure = error;
  }
  std::lock_guard lock(core_.mutex);
  if (failure) {
    fail(item, *failure);
  } else if (!same && !item->gone && item->mustSendContents()) {
    makeConflict(item, *found);
  }
  co_return false;
}

/// What the provider has of an item; nothing when that is not there any more. Throws what keeps it
/// from being found out.
Task<std::optional<Base>> Sender::lookAt(Base known, ItemPtr folder) {
  try {
    auto request = core_.provider.item(known.identifier);
    const NSFileProviderItemPtr item = co_await std::move(request);
    Base found = baseOf(*item, known.parent, core_.options, Source::look);
    found.name = known.name;
    std::lock_guard lock(core_.mutex);
    health_.note(std::nullopt);
    // Something may be there, but not said in a way that could be believed.
    if (found.identifier != known.identifier) throw partialAnswer();
    co_return found;
  } catch (const NSError& error) {
    const remote::ErrorClass kind = remote::errorClass(error);
    const bool isUnsure = kind == remote::ErrorClass::ambiguous || kind == remote::ErrorClass::gone;
    if (!isUnsure || !folder) throw;
  }
  auto listing = lister_.listed(folder);
  const ListingPtr listed = co_await std::move(listing);
  if (const auto* entry = listed->find(known.name)) co_return entry->base;
  if (!listed->whole) throw partialAnswer();
  co_return std::nullopt;
}

Task<bool> Sender::adoptIfSame(ItemPtr item, Base atProvider) {
  const Frozen frozen = freeze(item);
  bool same = false;
  std::optional<NSError> failure;
  try {
    auto comparison = holdsSameBytes(atProvider, frozen.number, 0);
    same = co_await std::move(comparison);
  } catch (const NSError& error) {
    failure = error;
  }
  bool adopted = same;
  if (adopted) {
    std::lock_guard lock(core_.mutex);
    adopted = !item->gone && !item->removed;
    if (adopted) {
      core_.confirm(item);
      core_.setBase(item, std::move(atProvider));
      answerVerdict(item, std::nullopt);
    }
  }
  thaw(item, frozen, adopted);
  if (failure) throw *failure;
  co_return same;
}

Task<bool> Sender::mayRemove(ItemPtr item) {
  Base known;
  ItemPtr folder;
  bool certain = false;
  {
    std::lock_guard lock(core_.mutex);
    known = *item->base;
    folder = core_.table.find(known.parent);
    // What was seen before the removal is part of what is known; after it nothing is.
    certain = folder && lister_.isCertain(*folder) && item->sync->changedAt != 0 &&
              !item->sync->changedThere;
  }
  if (certain) co_return true;
  if (!folder) co_return false;
  // While the item is being sent a listing leaves it alone, so what it says is looked at here.
  auto looked = listOrFail(item, folder);
  const ListingPtr listed = co_await std::move(looked);
  if (!listed) co_return false;
  std::lock_guard lock(core_.mutex);
  if (item->gone || !item->mustRemove()) co_return false;
  const auto* entry = listed->find(known.name);
  if (entry) co_return !keepIfChanged(item, entry->base);
  // Where a listing is no proof, the request itself tells.
  if (!lister_.isComplete(folder, *listed)) co_return true;
  acceptRemoval(item);
  co_return false;
}

/// A listing of the folder; null when there is none, which then is why the item cannot be sent.
Task<ListingPtr> Sender::listOrFail(ItemPtr item, ItemPtr folder) {
  std::optional<NSError> failure;
  try {
    auto listing = lister_.listed(folder);
    co_return co_await std::move(listing);
  } catch (const NSError& error) {
    failure = error;
  }
  std::lock_guard lock(core_.mutex);
  fail(item, *failure);
  co_return nullptr;
}

/// A file that was removed here and changed there is kept. Whether that is so.
bool Sender::keepIfChanged(const ItemPtr& item, const Base& atProvider) {
  if (canBeSame(core_.options, *item->base, atProvider)) return false;
  core_.log("changed at the provider, so it is not removed", *item);
  core_.departures.leave(item, HistoryReason::removed);
  core_.setBase(item, atProvider);
  item->size = atProvider.size;
  item->modified = modifiedOf(atProvider);
  core_.sync(item).changedThere = false;
  resurrect(item, posixError(EBUSY));
  answerVerdict(item, posixError(EBUSY));
  return true;
}

/// Whether the provider has nothing in the folder but what was removed here with it, as it was.
Task<bool> Sender::isEmptyAtProvider(ItemPtr folder) {
  std::vector<ItemPtr> unseen{folder};
  while (!unseen.empty()) {
    const ItemPtr at = unseen.back();
    unseen.pop_back();
    ListingPtr listed;
    std::optional<NSError> failure;
    try {
      auto listing = lister_.listed(at);
      listed = co_await std::move(listing);
    } catch (const NSError& error) {
      failure = error;
    }
    std::lock_guard lock(core_.mutex);
    if (failure) {
      const bool gone = remote::errorClass(*failure) == remote::ErrorClass::gone || at->gone;
      if (gone && at != folder && !folder->gone) continue;
      if (gone) {
        acceptRemoval(folder);
      } else {
        fail(folder, *failure);
      }
      co_return false;
    }
    bool empty = listed->provesAbsence();
    for (const auto& entry : listed->entries) {
      const ItemPtr child = core_.table.serverChild(at->rid, entry.base.name);
      empty = empty && child && child->removed && child->kind == entry.kind &&
              (child->isFolder() || canBeSame(core_.options, *child->base, entry.base));
      if (!empty) break;
      if (child->isFolder()) unseen.push_back(child);
    }
    if (!empty) {
      fail(folder, NSFileProviderError(NSFileProviderErrorCode::directoryNotEmpty));
      co_return false;
    }
  }
  co_return true;
}

Task<bool> Sender::holdsSameBytes(Base base, ContentNumber content, std::int64_t sentAt) {
  const std::string path = core_.contents.path(content);
  struct stat status;
  if (::stat(path.c_str(), &status) != 0 || status.st_size != base.size) co_return false;
  if (base.size > kComparedSize) {
    co_return sentAt != 0 && base.date&&* base.date + kDateTolerance >= sentAt;
  }
  auto request = core_.provider.fetch(base.identifier, base.size);
  const remote::FetchedFile fetched = co_await std::move(request);
  const std::string copy = fetched.path;
  std::optional<bool> equal;
  // A file of another size than announced proves nothing.
  if (::stat(copy.c_str(), &status) == 0 && status.st_size == base.size) {
    equal = filesAreEqual(copy, path);
  }
  ::unlink(copy.c_str());
  if (!equal) throw NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
  co_return *equal;
}

/// The name of a new item is taken at the provider.
Task<void> Sender::settleCollision(ItemPtr item, Listing::Entry entry) {
  bool same = entry.kind == item->kind;
  std::optional<NSError> unknown;
  if (same && !item->isFolder()) {
    try {
      auto comparison = adoptIfSame(item, entry.base);
      same = co_await std::move(comparison);
    } catch (const NSError& error) {
      unknown = error;
    }
  }
  std::lock_guard lock(core_.mutex);
  if (unknown) {
    fail(item, *unknown);
    co_return;
  }
  const ItemPtr folder = core_.table.find(entry.base.parent);
  if (folder && (same || item->mustCreate())) {
    core_.folder(folder).shadowed.erase(entry.base.name);
  }
  if (!folder || !item->mustCreate()) co_return;
  if (!same) {
    bounce(item);
    lister_.insert(folder, entry);
  } else if (item->isFolder()) {
    core_.confirm(item);
    core_.setBase(item, entry.base);
    answerVerdict(item, std::nullopt);
  }
}

/// After a request whose answer is not known: asks whether it took effect.
Task<bool> Sender::verify(ItemPtr item) {
  SentRecord sent;
  std::optional<Base> before;
  ItemPtr target;
  ItemPtr source;
  {
    std::lock_guard lock(core_.mutex);
    sent = *item->sent;
    before = item->base;
    target = core_.table.find(sent.parent);
    source = before ? core_.table.find(before->parent) : nullptr;
    if (!target || target->gone || !target->base) {
      core_.forgetSent(item);
      core_.save(item);
      co_return true;
    }
  }
  auto lookAtTarget = listOrFail(item, target);
  const ListingPtr listed = co_await std::move(lookAtTarget);
  if (!listed) co_return false;
  ListingPtr listedSource = listed;
  if (source && source != target) {
    auto lookAtSource = listOrFail(item, source);
    listedSource = co_await std::move(lookAtSource);
    if (!listedSource) co_return false;
  }
  std::optional<Listing::Entry> atTarget;
  if (const auto* found = listed->find(sent.name)) atTarget = *found;
  if (!atTarget && !(listed->whole && listedSource->whole)) {
    std::lock_guard lock(core_.mutex);
    fail(item, partialAnswer());
    co_return false;
  }
  const bool moved = before && (before->parent != sent.parent || before->name != sent.name);
  const bool stillAtSource = before && moved && listedSource->find(before->name) != nullptr;
  if (moved && stillAtSource) atTarget.reset();

  bool hasContents = false;
  if (atTarget && sent.content != 0 && atTarget->kind == ItemKind::file) {
    const bool unchanged =
        before && sameness(core_.options, *before, atTarget->base) == Sameness::same;
    if (!unchanged) {
      std::optional<NSError> failure;
      try {
        auto comparison = holdsSameBytes(atTarget->base, sent.content, sent.at);
        hasContents = co_await std::move(comparison);
      } catch (const NSError& error) {
        failure = error;
      }
      if (failure) {
        std::lock_guard lock(core_.mutex);
        fail(item, *failure);
        co_return false;
      }
    }
  }
  std::lock_guard lock(core_.mutex);
  if (item->gone || core_.stopped) co_return false;
  const std::int64_t age = core_.seconds() - sent.at;
  if (item->mustSettle() && !atTarget && age >= 0 && age < kLandingTime) {
    fail(item, NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost));
    co_return false;
  }
  core_.forgetSent(item);
  const bool removal = item->removed && before && !moved && sent.content == 0;
  const bool hasMoved =
      moved && atTarget && (item->isFolder() || canBeMoved(core_.options, *before, atTarget->base));
  if (removal && !atTarget) {
    // Where a listing is no proof, the next request tells.
    if (lister_.isComplete(target, *listed)) acceptRemoval(item);
  } else if (removal && !item->isFolder()) {
    keepIfChanged(item, atTarget->base);
  } else if (!before && atTarget && atTarget->kind == item->kind &&
             (item->isFolder() || hasContents)) {
    // Our creation.
    if (item->localOnly) {
      leaveBehind(*item, atTarget->base);
      core_.save(item);
      co_return true;
    }
    core_.confirm(item);
    core_.folder(target).shadowed.erase(sent.name);
    if (item->content == sent.content && !item->isFolder()) item->contentsChanged = false;
    core_.setBase(item, atTarget->base);
  } else if (before && atTarget && atTarget->kind == item->kind && (hasMoved || hasContents)) {
    core_.confirm(item);
    if (moved) {
      if (source) core_.folder(source).left[before->name] = core_.sequence;
    }
    Base now = atTarget->base;
    if (hasContents) {
      if (item->content == sent.content) item->contentsChanged = false;
    } else if (item->contentsChanged) {
      // Moved, but not yet with the contents.
      now.version = before->version;
      now.versionKnown = before->versionKnown;
      now.size = before->size;
      now.date = before->date;
    }
    core_.setBase(item, std::move(now));
  } else if (moved && atTarget && !item->removed && item->content != 0 &&
             listedSource->provesAbsence()) {
    // Somebody removed it, and the name that it was to get is another's: what is here lives on.
    core_.setBase(item, std::nullopt);
  }
  if (!item->gone) core_.save(item);
  co_return true;
}

}  // namespace kestrowan::replica
