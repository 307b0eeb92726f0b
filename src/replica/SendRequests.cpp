#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/fileprovider/TemplateItem.h"
#include "replica/NameRules.h"
#include "replica/Sender.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica {

namespace {

NSFileProviderItemPtr templateOf(NSFileProviderItemIdentifier identifier, const Item& parent,
                                 const std::string& name, ItemKind kind) {
  return std::make_shared<const TemplateItem>(TemplateItem::Values{
      .itemIdentifier = std::move(identifier),
      .parentItemIdentifier = parent.base->identifier,
      .filename = name,
      .contentType = kind == ItemKind::folder ? std::optional(UTType::folder()) : std::nullopt});
}

}  // namespace

Sender::Frozen Sender::freeze(const ItemPtr& item) {
  for (;;) {
    std::shared_ptr<Contents> open;
    {
      std::lock_guard lock(core_.mutex);
      open = item->contents.lock();
    }
    std::unique_lock<std::shared_mutex> still;
    if (open) still = std::unique_lock(open->mutex);
    std::lock_guard lock(core_.mutex);
    if (item->contents.lock() != open) continue;
    Frozen frozen;
    frozen.number = item->content;
    frozen.path = core_.contents.path(frozen.number);
    struct stat status;
    if (::stat(frozen.path.c_str(), &status) != 0) throw posixError(errno);
    frozen.size = status.st_size;
    core_.sync(item).frozen = frozen.number;
    if (open) {
      open->frozen = true;
      ++open->freezes;
    }
    return frozen;
  }
}

void Sender::thaw(const ItemPtr& item, const Frozen& frozen, bool sent) {
  if (frozen.number == 0) return;
  for (;;) {
    std::shared_ptr<Contents> open;
    {
      std::lock_guard lock(core_.mutex);
      open = item->contents.lock();
    }
    std::unique_lock<std::shared_mutex> still;
    if (open) still = std::unique_lock(open->mutex);
    std::lock_guard lock(core_.mutex);
    if (item->contents.lock() != open) continue;
    item->sync->frozen = 0;
    if (item->content != frozen.number) {
      // Somebody wrote meanwhile, into a copy.
      if (!core_.areNeeded(*item, frozen.number)) {
        core_.departures.leaveVersion(*item, frozen.number, frozen.size,
                                      sent ? Confirmed::once : Confirmed::never);
      }
      return;
    }
    if (core_.areNeeded(*item, frozen.number)) return;
    if (open && open->number == frozen.number) {
      open->frozen = false;
      if (sent) open->noted = false;
    }
    if (sent && !item->gone) {
      item->contentsChanged = false;
      core_.save(item);
    }
    return;
  }
}

void Sender::noteSent(const ItemPtr& item, const Frozen& frozen, Rid parent,
                      const std::string& name) {
  item->sent = SentRecord{frozen.number, frozen.size, core_.seconds(), parent, name};
  doubtFolderDates(item);
  std::erase(core_.unsettled, item);
  core_.unsettled.push_back(item);
  // Contents that somebody wrote since they were frozen are not among what is sent.
  if (frozen.number == 0 || frozen.number == item->content) coverWaiters(item);
  core_.save(item);
  try {
    core_.rows.requireWritten();
  } catch (const NSError&) {
    core_.forgetSent(item);
    core_.save(item);
    throw;
  }
}

Task<void> Sender::sendCreation(ItemPtr item) {
  ItemPtr parent;
  bool mustList = false;
  {
    std::lock_guard lock(core_.mutex);
    parent = core_.table.find(item->parent);
    if (!parent || !parent->base) co_return;
    // A file replaces one of its name silently, so its folder is looked at once more.
    mustList = !lister_.isCertain(*parent) ||
               (!item->isFolder() && parent->listedAt <= item->sync->changedAt);
  }
  ListingPtr listing;
  if (mustList) {
    auto looked = listOrFail(item, parent);
    listing = co_await std::move(looked);
    if (!listing) co_return;
  }
  std::optional<Listing::Entry> taken;
  {
    std::lock_guard lock(core_.mutex);
    if (!item->mustCreate() || item->parent != parent->rid || !parent->base) co_return;
    auto& shadowed = core_.folder(parent).shadowed;
    if (const auto found = shadowed.find(item->name); found != shadowed.end()) {
      taken = found->second;
    } else if (listing && !core_.table.serverChild(parent->rid, item->name)) {
      // A listing may tell of it without having been believed as a whole.
      if (const auto* entry = listing->find(item->name)) taken = *entry;
    }
    if (!taken && listing && !listing->whole && !item->isFolder()) {
      // What it lacks may be there, and would be replaced.
      fail(item, NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse));
      co_return;
    }
  }
  if (taken) {
    Listing::Entry entry = std::move(*taken);
    co_await settleCollision(item, std::move(entry));
    co_return;
  }

  Frozen frozen;
  NSFileProviderItemPtr wanted;
  std::optional<std::string> contents;
  std::string name;
  try {
    if (!item->isFolder()) {
      frozen = freeze(item);
      contents = frozen.path;
    }
    std::lock_guard lock(core_.mutex);
    name = item->name;
    item->sync->targetName = name;
    wanted = templateOf("new:" + std::to_string(item->rid), *parent, name, item->kind);
    noteSent(item, frozen, parent->rid, name);
  } catch (const NSError&) {
    thaw(item, frozen, false);
    throw;
  }
  const auto fields = NSFileProviderItemField::filename |
                      NSFileProviderItemField::parentItemIdentifier |
                      (contents ? NSFileProviderItemField::contents : 0);
  auto request = core_.provider.create(wanted, fields, contents, 0);
  auto writing = write(item, std::move(request), parent->rid, std::move(name), frozen);
  co_await std::move(writing);
}

Task<void> Sender::sendChange(ItemPtr item) {
  bool wantsContents = false;
  {
    std::lock_guard lock(core_.mutex);
    wantsContents = item->mustSendContents();
  }
  if (wantsContents && !co_await mayReplace(item)) co_return;
  Frozen frozen;
  NSFileProviderItemPtr wanted;
  NSFileProviderItemVersion version;
  NSFileProviderItemFields fields = 0;
  std::optional<std::string> contents;
  std::string name;
  Rid parentRid = 0;
  try {
    if (wantsContents) {
      frozen = freeze(item);
      contents = frozen.path;
      fields |= NSFileProviderItemField::contents;
    }
    std::lock_guard lock(core_.mutex);
    const ItemPtr parent = core_.table.find(item->parent);
    if (!item->base || item->removed || !parent || !parent->base) {
      item->sync->frozen = 0;
      co_return;
    }
    parentRid = parent->rid;
    name = item->name;
    if (item->base->name != name) fields |= NSFileProviderItemField::filename;
    if (item->base->parent != parentRid) fields |= NSFileProviderItemField::parentItemIdentifier;
    if (item->mustMove() && isInCycle(item)) {
      // Out of the way first; the next request finishes the move.
      const Rid at = item->base->parent;
      const ItemPtr folder = core_.table.find(at);
      name = freeName(
          folder, [&](unsigned number) { return bouncedName(item->name, number); }, 2);
      parentRid = at;
      fields = (fields & NSFileProviderItemField::contents) | NSFileProviderItemField::filename;
      wanted = templateOf(item->base->identifier, *folder, name, item->kind);
    } else {
      wanted = templateOf(item->base->identifier, *parent, name, item->kind);
    }
    item->sync->targetParent = parentRid;
    item->sync->targetName = name;
    version = {item->base->version, item->base->version};
    noteSent(item, frozen, parentRid, name);
  } catch (const NSError&) {
    thaw(item, frozen, false);
    throw;
  }
  auto request = core_.provider.modify(wanted, version, fields, contents);
  auto writing = write(item, std::move(request), parentRid, std::move(name), frozen);
  co_await std::move(writing);
}

/// Makes a request that puts the item there, and takes what comes of it.
Task<void> Sender::write(ItemPtr item, Task<remote::WrittenItem> request, Rid parent,
                         std::string name, Frozen frozen) {
  std::optional<NSError> failure;
  remote::WrittenItem written;
  try {
    written = co_await std::move(request);
  } catch (const NSError& error) {
    failure = error;
  }
  bool accepted = false;
  {
    std::lock_guard lock(core_.mutex);
    if (!failure) {
      health_.note(std::nullopt);
      accepted = accept(item, written, parent, name, frozen);
    } else {
      fail(item, *failure);
    }
  }
  thaw(item, frozen, accepted);
}

Task<void> Sender::sendRemoval(ItemPtr item) {
  if (item->isFolder()) {
    if (!co_await isEmptyAtProvider(item)) co_return;
  } else {
    if (!co_await mayRemove(item)) co_return;
  }
  NSFileProviderItemIdentifier identifier;
  NSFileProviderItemVersion version;
  {
    std::lock_guard lock(core_.mutex);
    if (item->gone || !item->mustRemove()) co_return;
    identifier = item->base->identifier;
    version = {item->base->version, item->base->version};
    noteSent(item, {}, item->base->parent, item->base->name);
  }
  std::optional<NSError> failure;
  try {
    auto request = core_.provider.remove(identifier, version, item->isFolder());
    co_await std::move(request);
  } catch (const NSError& error) {
    failure = error;
  }
  std::lock_guard lock(core_.mutex);
  if (!failure) {
    health_.note(std::nullopt);
    acceptRemoval(item);
  } else {
    fail(item, *failure);
  }
}

}  // namespace kestrowan::replica
