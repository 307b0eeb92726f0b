#include <cerrno>
#include <utility>

#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/NameRules.h"
#include "replica/Sender.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;

/// An answer that leaves open what is wrong is taken for a refusal after so many tries.
constexpr std::uint32_t kTriesUntilSlow = 8;
constexpr milliseconds kSlowInterval{15 * 60 * 1000};
/// A server that is not there yet is asked again after this time, without counting.
constexpr milliseconds kDownInterval{1000};

}  // namespace

std::string Sender::freeName(const ItemPtr& folder,
                             const std::function<std::string(unsigned)>& name,
                             unsigned first) const {
  for (unsigned number = first;; ++number) {
    std::string candidate = name(number);
    const bool taken = core_.table.child(folder->rid, candidate) ||
                       core_.table.serverChild(folder->rid, candidate) ||
                       core_.isBeingSentTo(folder->rid, candidate) ||
                       (folder->folder && folder->folder->shadowed.contains(candidate));
    if (!taken) return candidate;
  }
}

/// Takes what the provider made of a request. Whether the contents that were sent are there now.
bool Sender::accept(const ItemPtr& item, const remote::WrittenItem& written, Rid parent,
                    const std::string& name, const Frozen& frozen) {
  core_.forgetSent(item);
  item->failure.reset();
  if (item->gone) return false;
  if (!written.item) {
    // The provider says that there is no such item any more.
    const Rid folder = item->parent;
    const std::string shown = item->name;
    core_.dropItem(item, HistoryReason::vanished);
    core_.showFolderChange(folder);
    core_.entryChanged(folder, shown);
    answerVerdict(item, std::nullopt);
    return false;
  }
  Base base = baseOf(*written.item, parent, core_.options, Source::answer);
  const ItemPtr folder = core_.table.find(parent);
  if (!folder || !folder->base ||
      written.item->parentItemIdentifier() != folder->base->identifier ||
      !core_.options.identifiers.isProper(base.identifier, folder->base->identifier, base.name)) {
    // Not an answer about this item: the next listing tells what happened.
    core_.log("the provider answered with another item", *item);
    item->sent = SentRecord{frozen.number, frozen.size, core_.seconds(), parent, name};
    backOffLater(item, NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse));
    return false;
  }
  if (item->localOnly) {
    leaveBehind(*item, std::move(base));
    core_.save(item);
    return false;
  }
  const bool contentsSent = frozen.number != 0;
  const bool isNew = !item->base;
  if (item->isFolder()) {
    base.size = 0;
    // A new one has nothing in it.
    if (!item->base) item->listedAt = core_.milliseconds();
  } else if (contentsSent && !base.versionKnown) {
    base.size = frozen.size;
  } else if (!contentsSent && item->base &&
             (!base.versionKnown || base.size != item->base->size ||
              base.date != item->base->date)) {
    // A move changes no contents. Somebody else did, and the next listing is to tell.
    base.size = item->base->size;
    base.date = item->base->date;
    base.version = item->base->version;
    base.versionKnown = item->base->versionKnown;
  }
  const bool overwritten =
      contentsSent && base.versionKnown && base.size != frozen.size && !item->isFolder();

  const ItemPtr holder = core_.table.serverChild(parent, base.name);
  if (holder && holder != item) {
    core_.log("another item was merged with this one", *holder);
    const Rid shownIn = holder->parent;
    const std::string shown = holder->name;
    core_.dropItem(holder, HistoryReason::updated);
    core_.showFolderChange(shownIn);
    core_.entryChanged(shownIn, shown);
  }
  if (item->base && (item->base->parent != parent || item->base->name != base.name)) {
    if (const ItemPtr source = core_.table.find(item->base->parent)) {
      core_.confirm(item);
      core_.folder(source).left[item->base->name] = core_.sequence;
    }
  }
  const bool renamedByProvider = base.name != name && item->name == name && !item->removed &&
                                 item->parent == parent && !core_.table.child(parent, base.name);
  core_.confirm(item);
  core_.folder(folder).shadowed.erase(base.name);
  if (renamedByProvider) core_.moveInView(item, parent, base.name);
  // What a listing says soon is of our contents; later it may be of somebody else's.
  if (!base.versionKnown) lister_.look(folder);
  core_.setBase(item, std::move(base));
  item->sync->unreported.reset();
  answerCovered(item);
  if (overwritten && item->content == frozen.number) {
    // Somebody else wrote in between, or the provider changes what it is sent. Ours is kept, theirs
    // is shown.
    core_.log("overwritten at the provider while it was sent", *item);
    if (isNew) {
      // A copy beside it would fare no better.
      core_.departures.leave(item, HistoryReason::updated);
      item->size = item->base->size;
      item->modified = modifiedOf(*item->base);
      core_.stamp(*item);
      core_.save(item);
      core_.itemChanged(item->rid, true);
    } else {
      Base theirs = *item->base;
      theirs.version.clear();
      makeConflict(item, theirs);
    }
    return false;
  }
  const bool arrived = contentsSent && (written.remaining & NSFileProviderItemField::contents) == 0;
  if (arrived && written.fetchAgain && item->content == frozen.number) {
    // The provider made other contents of them.
    core_.departures.leave(item, HistoryReason::updated);
    item->contents.reset();
    item->size = item->base->size;
    item->modified = modifiedOf(*item->base);
    core_.stamp(*item);
    core_.save(item);
    core_.itemChanged(item->rid, true);
    return false;
  }
  return arrived;
}

/// The item got a name that is never sent while a request about it was under way: what the provider
/// has of it now goes.
void Sender::leaveBehind(const Item& item, Base base) {
  ItemPtr rest = core_.table.serverChild(base.parent, base.name);
  if (rest && !rest->removed) return;
  if (!rest) {
    rest = core_.makeItem(base.parent, base.name, item.kind);
    rest->removed = true;
    core_.table.add(rest);
  }
  core_.setBase(rest, std::move(base));
  changed(rest, milliseconds(0));
}

void Sender::acceptRemoval(const ItemPtr& item) {
  core_.forgetSent(item);
  if (!item->base) return;
  core_.confirm(item);
  if (const ItemPtr folder = core_.table.find(item->base->parent)) {
    core_.folder(folder).left[item->base->name] = core_.sequence;
  }
  std::vector<ItemPtr> gone{item};
  for (std::size_t at = 0; at < gone.size(); ++at) {
    const auto below = core_.table.serverChildren(gone[at]->rid);
    gone.insert(gone.end(), below.begin(), below.end());
  }
  Rows::Batch batch(core_.rows);
  // What lies deepest goes first, while its path is known.
  for (auto each = gone.rbegin(); each != gone.rend(); ++each) {
    answerVerdict(*each, std::nullopt);
    core_.dropItem(*each, HistoryReason::removed);
  }
}

void Sender::postpone(const ItemPtr& item, const NSError& error, FailureClass failureClass,
                      milliseconds delay) {
  SyncFailure failure;
  if (item->failure) failure = *item->failure;
  if (failure.since == 0) failure.since = core_.seconds();
  failure.failureClass = failureClass;
  failure.domain = error.domain();
  failure.code = error.code();
  failure.text = error.localizedDescription();
  ++failure.tries;
  failure.next = (core_.milliseconds() + delay.count()) / 1000;
  item->failure = failure;
  core_.save(item);
  if (failureClass == FailureClass::refused) return;
  enqueue(item, delay);
}

void Sender::backOffLater(const ItemPtr& item, const NSError& error) {
  const std::uint32_t tries = item->failure ? item->failure->tries + 1 : 1;
  if (tries >= kTriesUntilSlow) {
    postpone(item, error, FailureClass::slow, kSlowInterval);
  } else {
    postpone(item, error, FailureClass::transient, remote::backOff(tries, core_.random()));
  }
}

/// Whether somebody waits for the provider's word on a change that a refusal can undo: contents are
/// kept, whoever waits for them.
bool Sender::isAwaitedChangeOfNames(const Item& item) {
  if (!item.sync || item.sync->verdictWaiters.empty()) return false;
  return item.base ? item.mustMove() : item.isFolder();
}

void Sender::refuse(const ItemPtr& item, const NSError& error) {
  core_.forgetSent(item);
  const bool awaited = isAwaitedChangeOfNames(*item);
  answerVerdict(item, error);
  if (item->removed) {
    resurrect(item, error);
  } else if (awaited) {
    rollBack(item);
  } else {
    core_.sync(item).unreported = error;
    postpone(item, error, FailureClass::refused, milliseconds(0));
  }
}

/// Undoes a change of names that somebody has just been told is refused.
void Sender::rollBack(const ItemPtr& item) {
  core_.entryChanged(item->parent, item->name);
  if (!item->base) {
    if (item->isFolder() && core_.table.hasChildren(item->rid)) return;
    core_.dropItem(item, HistoryReason::removed);
    core_.showFolderChange(item->parent);
    return;
  }
  if (core_.table.child(item->base->parent, item->base->name)) return;
  core_.moveInView(item, item->base->parent, item->base->name);
}

/// A removal did not come about, for `reason`: the item is there again.
void Sender::resurrect(const ItemPtr& item, const NSError& reason) {
  core_.forgetSent(item);
  if (core_.table.child(item->base->parent, item->base->name)) {
    // Its name was taken meanwhile, by something that the provider does not have.
    const ItemPtr here = core_.table.child(item->base->parent, item->base->name);
    if (here->base) {
      answerVerdict(here, reason);
      rollBack(here);
    } else {
      bounce(here);
    }
  }
  core_.table.place(item, item->base->parent, item->base->name);
  core_.table.setRemoved(item, false);
  core_.stamp(*item);
  core_.save(item);
  core_.showFolderChange(item->parent);
  core_.entryChanged(item->parent, item->name);
  if (item->isFolder()) {
    for (const ItemPtr& child : core_.table.serverChildren(item->rid)) {
      if (child->removed) changed(child, milliseconds(0));
    }
  }
}

/// The item's name belongs to another: it gets one of its own.
void Sender::bounce(const ItemPtr& item) {
  const ItemPtr folder = core_.table.find(item->parent);
  if (!folder) return;
  const std::string before = item->name;
  core_.moveInView(item, item->parent,
                   freeName(
                       folder, [&](unsigned number) { return bouncedName(before, number); }, 2));
  core_.log("its name was taken; it was renamed from", *item, before);
  if (item->isSending()) return;
  changed(item, milliseconds(0));
}

/// Both sides changed the contents. Ours become a copy beside it, and the name shows theirs.
void Sender::makeConflict(const ItemPtr& item, const Base& atProvider) {
  const ItemPtr folder = core_.table.find(item->parent);
  const std::string name = item->name;
  const ItemPtr theirs = core_.makeItem(item->parent, name, ItemKind::file);
  theirs->mode = item->mode;
  theirs->pinned = item->pinned;
  theirs->size = atProvider.size;
  theirs->modified = modifiedOf(atProvider);

  Rows::Batch batch(core_.rows);
  core_.forgetSent(item);
  item->contentsChanged = true;
  core_.setBase(item, std::nullopt);
  const std::string copy = freeName(
      folder,
      [&](unsigned attempt) {
        return conflictName(name, core_.seconds(), core_.options.hostName, attempt);
      },
      1);
  core_.moveInView(item, item->parent, copy);
  core_.table.add(theirs);
  core_.setBase(theirs, atProvider);

  // When both the name and the contents were changed here, theirs still has to be moved.
  changed(theirs, milliseconds(0));
  core_.conflicts.push_back(core_.table.path(*item));
  core_.log("changed on both sides; the copy from here is", *theirs, copy);
  core_.entryChanged(item->parent, name);
  answerVerdict(item, std::nullopt);
}

void Sender::fail(const ItemPtr& item, const NSError& error) {
  if (core_.stopped || item->gone) return;
  health_.note(error);
  const remote::ErrorClass kind = remote::errorClass(error);
  if (item->removed && !item->base) {
    // Only whether it arrived is still of interest.
    if (kind == remote::ErrorClass::ambiguous || kind == remote::ErrorClass::transient) {
      backOffLater(item, error);
    } else if (kind == remote::ErrorClass::down || kind == remote::ErrorClass::held) {
      enqueue(item, kDownInterval);
    } else {
      core_.forgetSent(item);
    }
    return;
  }
  switch (kind) {
    case remote::ErrorClass::ambiguous:
    case remote::ErrorClass::transient:
    case remote::ErrorClass::listAgain:
      backOffLater(item, error);
      break;
    case remote::ErrorClass::down:
      // The last of several requests may be the one that has not reached the server.
      enqueue(item, kDownInterval);
      break;
    case remote::ErrorClass::held:
      postpone(item, error, FailureClass::held, kDownInterval);
      break;
    case remote::ErrorClass::collision: {
      core_.forgetSent(item);
      const bool awaited = isAwaitedChangeOfNames(*item);
      answerVerdict(item, error);
      if (awaited) {
        rollBack(item);
      } else {
        bounce(item);
      }
      // What bears the name there must be seen.
      if (const ItemPtr folder = core_.table.find(item->parent)) folder->listedAt = 1;
      enqueue(item, milliseconds(0));
      break;
    }
    case remote::ErrorClass::gone:
      core_.forgetSent(item);
      if (item->removed) {
        acceptRemoval(item);
      } else if (item->base && (item->contentsChanged || item->content != 0)) {
        core_.setBase(item, std::nullopt);
      } else {
        backOffLater(item, error);
      }
      break;
    case remote::ErrorClass::deletionRefused:
    case remote::ErrorClass::folderNotEmpty:
      answerVerdict(item, error);
      core_.forgetSent(item);
      if (item->removed) {
        resurrect(item, error);
      } else {
        backOffLater(item, error);
      }
      break;
    case remote::ErrorClass::quota:
      if (core_.sync(item).verdictWaiters.empty()) item->sync->unreported = error;
      answerVerdict(item, error);
      postpone(item, error, FailureClass::slow, kSlowInterval);
      break;
    case remote::ErrorClass::excluded:
      core_.forgetSent(item);
      item->localOnly = true;
      core_.save(item);
      answerVerdict(item, std::nullopt);
      break;
    case remote::ErrorClass::parked:
    case remote::ErrorClass::refused:
      refuse(item, error);
      break;
  }
}

}  // namespace kestrowan::replica
