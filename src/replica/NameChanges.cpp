#include <unistd.h>

#include <cerrno>
#include <utility>

#include "replica/Implementation.h"
#include "replica/NameRules.h"
#include "replica/remote/ValidName.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;
using Capability = NSFileProviderItemCapabilities;

constexpr std::size_t kLongestName = 255;

void require(const Item& item, Capability capability) {
  if (item.base && (item.base->capabilities & capability) == 0) throw posixError(EPERM);
}

}  // namespace

void Replica::Implementation::checkChangeable(const ItemPtr& folder) const {
  if (!core.mayWrite(*folder)) throw posixError(EACCES);
}

bool Replica::Implementation::staysHere(const std::string& name, ItemKind kind) const {
  return kind == ItemKind::file && core.options.localOnlyNames &&
         nameClass(name) == NameClass::localOnly;
}

void Replica::Implementation::checkNewName(const ItemPtr& folder, const std::string& name,
                                           ItemKind kind) const {
  if (name.size() > kLongestName) throw posixError(ENAMETOOLONG);
  if (!remote::isValidName(name)) throw posixError(EINVAL);
  checkChangeable(folder);
  if (core.options.localOnlyNames && nameClass(name) == NameClass::refused) {
    throw posixError(EPERM);
  }
  const bool refused = folder->base && !staysHere(name, kind) && core.options.wouldRefuse &&
                       core.options.wouldRefuse(folder->base->identifier, name);
  if (refused) throw posixError(EPERM);
}

/// What cannot be noted on disk must not be promised: `undo` takes it back, and the call fails.
void Replica::Implementation::requireWritten(const std::function<void()>& undo) {
  try {
    core.rows.requireWritten();
  } catch (const NSError&) {
    undo();
    throw;
  }
}

/// Puts an item that a program made into its folder.
void Replica::Implementation::addNew(const ItemPtr& item) {
  {
    Rows::Batch batch(core.rows);
    core.table.add(item);
    core.save(item);
    core.noteFolderChange(item->parent);
  }
  requireWritten([&] { core.dropItem(item, HistoryReason::removed); });
}

void Replica::Implementation::createFile(Rid folderRid, std::string name, std::uint16_t mode,
                                         Completion<CreatedFile> completion) {
  ItemPtr folder;
  Lister::Need need = Lister::Need::fresh;
  {
    std::lock_guard lock(core.mutex);
    core.requireNewWork();
    core.departures.requireRoom();
    folder = core.requireFolder(folderRid);
    checkNewName(folder, name, ItemKind::file);
    if (staysHere(name, ItemKind::file)) need = Lister::Need::usable;
  }
  auto create = [this, folder, name, mode, completion](const Outcome<Done>& prepared) {
    std::optional<CreatedFile> created;
    try {
      if (!prepared.succeeded()) throw prepared.error();
      std::lock_guard lock(core.mutex);
      if (folder->gone || folder->removed) throw posixError(ENOENT);
      if (core.table.similarChild(folder->rid, name)) throw posixError(EEXIST);
      const ItemPtr item = core.makeItem(folder->rid, name, ItemKind::file);
      item->mode = static_cast<std::uint16_t>(mode & kModeBits);
      item->localOnly = staysHere(name, ItemKind::file);
      item->pinned = folder->pinned;
      core.places.require();
      item->content = core.store.nextNumber();
      noteDates(*item, core.contents.create(item->content).get());
      item->contentsChanged = true;
      addNew(item);
      item->lastWrite = core.uptime();
      sender.changed(item, Sender::kQuietTime);
      created = CreatedFile{core.attributes(*item), open(item, true)};
    } catch (const NSError& error) {
      completion(error);
      return;
    }
    completion(std::move(*created));
  };
  lister.prepare(folder, need, std::move(create));
}

void Replica::Implementation::makeFolder(Rid folderRid, std::string name, std::uint16_t mode,
                                         Completion<Attributes> completion) {
  ItemPtr folder;
  {
    std::lock_guard lock(core.mutex);
    core.requireNewWork();
    folder = core.requireFolder(folderRid);
    checkNewName(folder, name, ItemKind::folder);
  }
  auto make = [this, folder, name, mode, completion](const Outcome<Done>& prepared) {
    try {
      if (!prepared.succeeded()) throw prepared.error();
      std::lock_guard lock(core.mutex);
      if (folder->gone || folder->removed) throw posixError(ENOENT);
      if (core.table.similarChild(folder->rid, name)) throw posixError(EEXIST);
      const ItemPtr item = core.makeItem(folder->rid, name, ItemKind::folder);
      item->mode = static_cast<std::uint16_t>(mode & kModeBits);
      item->pinned = folder->pinned;
      addNew(item);
      sender.changed(item, milliseconds(0));
      const Attributes attributes = core.attributes(*item);
      sender.awaitVerdict(item, core.options.verdictWait,
                          [attributes, completion](const Outcome<Done>& verdict) {
                            if (verdict.succeeded()) {
                              completion(attributes);
                            } else {
                              completion(verdict.error());
                            }
                          });
    } catch (const NSError& error) {
      completion(error);
    }
  };
  lister.prepare(folder, Lister::Need::fresh, std::move(make));
}

void Replica::Implementation::removeItem(const ItemPtr& item, Completion<Done> completion) {
  require(*item, NSFileProviderItemCapability::allowsDeleting);
  const Rid folder = item->parent;
  if (!item->base && !item->isSending() && !item->sent) {
    {
      Rows::Batch batch(core.rows);
      core.dropItem(item, HistoryReason::removed);
      core.noteFolderChange(folder);
    }
    // Not before the rows are written.
    core.answer<Done>(std::move(completion), Done{});
    return;
  }
  {
    Rows::Batch batch(core.rows);
    core.table.setRemoved(item, true);
    core.stamp(*item);
    core.save(item);
    core.noteFolderChange(folder);
  }
  requireWritten([&] {
    core.table.setRemoved(item, false);
    core.save(item);
  });
  if (item->isSending()) {
    core.answer<Done>(std::move(completion), Done{});
    return;
  }
  sender.changed(item, milliseconds(0));
  sender.awaitVerdict(item, core.options.verdictWait, std::move(completion));
}

void Replica::Implementation::removeFile(Rid folderRid, std::string name,
                                         Completion<Done> completion) {
  ItemPtr folder;
  {
    std::lock_guard lock(core.mutex);
    folder = core.requireFolder(folderRid);
    checkChangeable(folder);
  }
  lister.prepare(folder, Lister::Need::usable,
                 [this, folder, name, completion](const Outcome<Done>& prepared) {
                   try {
                     std::lock_guard lock(core.mutex);
                     const ItemPtr item = core.table.similarChild(folder->rid, name);
                     if (!item && !prepared.succeeded()) throw prepared.error();
                     if (!item) throw posixError(ENOENT);
                     if (item->isFolder()) throw posixError(EISDIR);
                     removeItem(item, completion);
                   } catch (const NSError& error) {
                     completion(error);
                   }
                 });
}

void Replica::Implementation::removeFolder(Rid folderRid, std::string name,
                                           Completion<Done> completion) {
  ItemPtr folder;
  {
    std::lock_guard lock(core.mutex);
    folder = core.requireFolder(folderRid);
    checkChangeable(folder);
  }
  auto remove = [this, completion](const ItemPtr& item) {
    // The kernel lets nobody at the folder until this is answered.
    lister.prepare(item, Lister::Need::soon, [this, item, completion](const Outcome<Done>& known) {
      try {
        if (!known.succeeded()) throw known.error();
        std::lock_guard lock(core.mutex);
        if (item->gone || item->removed) throw posixError(ENOENT);
        if (core.table.hasChildren(item->rid)) throw posixError(ENOTEMPTY);
        removeItem(item, completion);
      } catch (const NSError& error) {
        completion(error);
      }
    });
  };
  lister.prepare(folder, Lister::Need::usable,
                 [this, folder, name, remove, completion](const Outcome<Done>& prepared) {
                   ItemPtr item;
                   std::optional<NSError> problem;
                   {
                     std::lock_guard lock(core.mutex);
                     item = core.table.similarChild(folder->rid, name);
                   }
                   if (!item) {
                     completion(prepared.succeeded() ? posixError(ENOENT) : prepared.error());
                   } else if (!item->isFolder()) {
                     completion(posixError(ENOTDIR));
                   } else {
                     remove(item);
                   }
                 });
}

void Replica::Implementation::rename(Move move, Completion<Done> completion) {
  ItemPtr folder;
  ItemPtr newFolder;
  {
    std::lock_guard lock(core.mutex);
    folder = core.requireFolder(move.folder);
    newFolder = core.requireFolder(move.newFolder);
  }
  syncSource(move);
  auto apply = [this, move, completion]() mutable {
    ItemPtr wanted;
    try {
      std::lock_guard lock(core.mutex);
      wanted = applyMove(move, completion);
    } catch (const NSError& error) {
      completion(error);
      return;
    }
    if (!wanted) return;
    fetchWhileAnswered(wanted, [this, move, completion](const Outcome<Done>& fetched) {
      try {
        if (!fetched.succeeded()) throw fetched.error();
        rename(move, completion);
      } catch (const NSError& error) {
        completion(error);
      }
    });
  };
  // A folder that is to be replaced must be known to be empty.
  auto lookAtTarget = [this, newFolder, move, apply,
                       completion](const Outcome<Done>& prepared) mutable {
    if (!prepared.succeeded()) {
      completion(prepared.error());
      return;
    }
    ItemPtr target;
    {
      std::lock_guard lock(core.mutex);
      target = core.table.similarChild(newFolder->rid, move.newName);
    }
    if (!target || !target->isFolder()) {
      apply();
      return;
    }
    lister.prepare(target, Lister::Need::soon,
                   [apply, completion](const Outcome<Done>& known) mutable {
                     if (known.succeeded()) {
                       apply();
                     } else {
                       completion(known.error());
                     }
                   });
  };
  lister.prepare(folder, Lister::Need::usable,
                 [this, newFolder, lookAtTarget](const Outcome<Done>&) mutable {
                   lister.prepare(newFolder, Lister::Need::fresh, std::move(lookAtTarget));
                 });
}

/// After a power failure a name must not show less than the file that it showed before; and what
/// could be fetched again is the only copy once it has a name that is not sent.
void Replica::Implementation::syncSource(const Move& move) {
  UniqueFd file;
  {
    std::lock_guard lock(core.mutex);
    const ItemPtr source = core.table.similarChild(move.folder, move.name);
    if (!source || source->isFolder() || source->content == 0) return;
    const ItemPtr target = core.table.similarChild(move.newFolder, move.newName);
    const bool replaces = target && target != source;
    if (!replaces && !staysHere(move.newName, source->kind)) return;
    file = core.contents.open(source->content);
  }
  if (::fdatasync(file.get()) != 0) throw posixError(errno);
  core.contents.syncNames();
}

void Replica::Implementation::checkMove(const ItemPtr& source, const ItemPtr& target,
                                        const ItemPtr& newFolder, const Move& move) const {
  const ItemPtr folder = core.requireFolder(move.folder);
  checkChangeable(folder);
  checkNewName(newFolder, move.newName, source->kind);
  require(*source, NSFileProviderItemCapability::allowsRenaming);
  if (folder != newFolder && core.options.refuseMovesBetweenFolders) throw posixError(EXDEV);
  if (source->isFolder() && core.table.isWithin(*newFolder, source->rid)) {
    throw posixError(EINVAL);
  }
  if (!target || target == source) return;
  if (!move.replace) throw posixError(EEXIST);
  if (target->isFolder() != source->isFolder()) {
    throw posixError(target->isFolder() ? EISDIR : ENOTDIR);
  }
  if (target->isFolder()) {
    if (core.table.hasChildren(target->rid)) throw posixError(ENOTEMPTY);
    require(*target, NSFileProviderItemCapability::allowsDeleting);
  } else if (!core.mayWrite(*target)) {
    throw posixError(EPERM);
  }
}

ItemPtr Replica::Implementation::applyMove(const Move& move, Completion<Done>& completion) {
  const ItemPtr source = core.table.similarChild(move.folder, move.name);
  if (!source) throw posixError(ENOENT);
  const ItemPtr newFolder = core.requireFolder(move.newFolder);
  const ItemPtr target = core.table.similarChild(move.newFolder, move.newName);
  checkMove(source, target, newFolder, move);
  if (target == source && source->name == move.newName) {
    core.answer<Done>(std::move(completion), Done{});
    return nullptr;
  }
  const bool here = staysHere(move.newName, source->kind);
  const bool replaces = target && target != source;
  const bool needsContents = !source->isFolder() && source->content == 0 &&
                             ((replaces && target->base) || (here && !source->localOnly));
  if (needsContents) return source;

  // Where nothing can be written, nothing is begun.
  core.rows.requireWritten();
  {
    Rows::Batch batch(core.rows);
    if (replaces) {
      core.table.setRemoved(target, true);
      core.stamp(*target);
      core.save(target);
    }
    core.table.place(source, move.newFolder, move.newName);
    core.stamp(*source);
    if (here && !source->localOnly) {
      keepHereOnly(source);
    } else if (!here && source->localOnly) {
      source->localOnly = false;
      source->contentsChanged = true;
    }
    core.save(source);
    core.noteFolderChange(move.folder);
    if (move.newFolder != move.folder) core.noteFolderChange(move.newFolder);
    if (replaces) {
      if (!target->base && !target->isSending() && !target->sent) {
        core.dropItem(target, HistoryReason::replaced);
      } else if (!target->isFolder() && !source->localOnly && target->base &&
                 !target->isSending() && !target->sent && !source->isSending()) {
        sender.takeOver(source, target);
      } else {
        sender.changed(target, milliseconds(0));
      }
    }
  }

  const bool withContents =
      source->mustSendContents() || (source->mustCreate() && !source->isFolder());
  sender.changed(source, withContents ? core.options.sendDelay : milliseconds(0));
  // It is done here, and written as soon as it can be, but not promised.
  core.rows.requireWritten();
  if (withContents || source->isSending() || !source->isPending()) {
    core.answer<Done>(std::move(completion), Done{});
  } else {
    sender.awaitVerdict(source, core.options.verdictWait, std::move(completion));
  }
  return nullptr;
}

/// The item's new name is one that is never sent: what the provider has of it goes.
void Replica::Implementation::keepHereOnly(const ItemPtr& item) {
  item->localOnly = true;
  const std::optional<Base> before = item->base;
  if (!before) return;
  core.setBase(item, std::nullopt);
  const ItemPtr rest = core.makeItem(before->parent, before->name, item->kind);
  rest->removed = true;
  core.table.add(rest);
  core.setBase(rest, before);
  sender.changed(rest, milliseconds(0));
}

}  // namespace kestrowan::replica
