#include "replica/calls/Names.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "replica/NameParts.h"
#include "replica/NameRules.h"
#include "replica/calls/Shown.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "replica/plan/Following.h"
#include "replica/plan/Settling.h"
#include "replica/remote/ValidName.h"

namespace kestrowan::replica::calls {

using model::Content;
using model::Edit;
using model::FileTime;
using model::Here;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Kind;
using model::Place;
using model::State;
using model::View;
using pull::Refresher;
using std::chrono::milliseconds;
namespace Capability = NSFileProviderItemCapability;

namespace {

/// A file that a program keeps open for writing is sent after so long without a write.
constexpr milliseconds kQuietTime{30000};

void requireCapable(const Item& item, NSFileProviderItemCapabilities capability) {
  if (!isCapable(item, capability)) throw posixError(EPERM);
}

/// Whether nothing but this disk knows of the item, and no request may have told the provider.
bool isOnlyHere(const State& state, const Item& item) {
  const auto& intents = state.intents().all();
  return !item.there() && !item.agreed() &&
         std::none_of(intents.begin(), intents.end(),
                      [&](const Intent& intent) { return intent.item == item.number(); });
}

bool isWithin(const State& state, const Item& item, ItemNumber folder) {
  for (const Item* at = &item;; at = &state.item(at->here()->place.folder)) {
    if (at->number() == folder) return true;
    if (at->number() == ItemNumber::root) return false;
  }
}

}  // namespace

Names::Names(const Rooms& rooms, Files& files, const NewWork& newWork)
    : rooms_(rooms), files_(files), newWork_(newWork) {}

bool Names::staysHere(const std::string& name, Kind kind) const {
  return kind == Kind::file && rooms_.options.localOnlyNames &&
         nameClass(name) == NameClass::localOnly;
}

void Names::checkNewName(const State& state, const Item& folder, const std::string& name,
                         Kind kind) const {
  if (name.size() > kLongestName) throw posixError(ENAMETOOLONG);
  if (!remote::isValidName(name)) throw posixError(EINVAL);
  if (!mayWrite(folder)) throw posixError(EACCES);
  if (rooms_.options.localOnlyNames && nameClass(name) == NameClass::refused) {
    throw posixError(EPERM);
  }
  const bool isRefused = folder.there() && !staysHere(name, kind) && rooms_.options.wouldRefuse &&
                         rooms_.options.wouldRefuse(state.identifier(folder), name);
  if (isRefused) throw posixError(EPERM);
}

/// What is under that name; throws ENOENT when nothing is.
const Item& Names::requireChild(const State& state, const Place& place) const {
  const Item* item = rooms_.forms.child(state, place.folder, place.name);
  if (!item) throw posixError(ENOENT);
  return *item;
}

Task<void> Names::prepare(ItemNumber folder, Refresher::Need need) {
  if (rooms_.refresher.isPrepared(folder, need)) co_return;
  co_await rooms_.refresher.prepare(folder, need);
}

ItemNumber Names::makeItem(Edit& edit, const Place& place, Kind kind,
                           std::optional<std::uint16_t> mode, Content content) const {
  const ItemNumber number = edit.make(kind);
  edit.setHere(number, Here{place, content});
  model::Attributes attributes;
  if (mode) attributes.mode = static_cast<std::uint16_t>(*mode & kModeBits);
  attributes.modified = FileTime(rooms_.now());
  attributes.changed = attributes.modified;
  if (kind == Kind::file) {
    attributes.size = 0;
    attributes.localOnly = staysHere(place.name, kind);
    attributes.lastUse = rooms_.now();
  }
  attributes.pinned = edit->item(place.folder).attributes().pinned;
  edit.setAttributes(number, std::move(attributes));
  return number;
}

Task<CreatedFile> Names::createFile(ItemNumber folder, std::string name, std::uint16_t mode) {
  newWork_.require();
  rooms_.history.requireRoom();
  {
    const View view(rooms_.tree);
    checkNewName(*view, requireFolder(*view, folder), name, Kind::file);
  }
  const bool isLocal = staysHere(name, Kind::file);
  co_await prepare(folder, isLocal ? Refresher::Need::usable : Refresher::Need::fresh);
  rooms_.openItems.requirePlace(ItemNumber::none);
  auto made = rooms_.contents.create();
  CreatedFile created;
  ItemNumber number = ItemNumber::none;
  {
    Edit edit(rooms_.tree, model::Origin::program);
    const Item* at = edit->find(folder);
    if (!at || !at->here()) throw posixError(ENOENT);
    if (rooms_.forms.child(*edit, folder, name)) throw posixError(EEXIST);
    number = makeItem(edit, {folder, name}, Kind::file, mode, made.number());
    edit.commit();
    made.keep();
    created.attributes = shown(*edit, edit->item(number), rooms_.openItems);
  }
  created.file = files_.opened(number, made.number(), true);
  rooms_.outbox.noteChange(number, kQuietTime);
  co_return created;
}

Task<Attributes> Names::makeFolder(ItemNumber folder, std::string name, std::uint16_t mode) {
  newWork_.require();
  {
    const View view(rooms_.tree);
    checkNewName(*view, requireFolder(*view, folder), name, Kind::folder);
  }
  co_await prepare(folder, Refresher::Need::fresh);
  ItemNumber number = ItemNumber::none;
  Attributes attributes;
  std::optional<push::Verdicts::Expected> word;
  {
    Edit edit(rooms_.tree, model::Origin::program);
    const Item* at = edit->find(folder);
    if (!at || !at->here()) throw posixError(ENOENT);
    if (rooms_.forms.child(*edit, folder, name)) throw posixError(EEXIST);
    number = makeItem(edit, {folder, name}, Kind::folder, mode, Content::none);
    edit.commit();
    attributes = shown(*edit, edit->item(number), rooms_.openItems);
    word.emplace(rooms_.verdicts.expect(number));
  }
  rooms_.outbox.noteChange(number, milliseconds(0));
  auto answer = rooms_.verdicts.word(*std::move(word), rooms_.options.verdictWait);
  co_await std::move(answer);
  co_return attributes;
}

void Names::checkRemoval(const Item& item) const {
  requireCapable(item, Capability::allowsDeleting);
}

void Names::endConflict(Edit& edit, ItemNumber number) const {
  const auto conflict = edit->item(number).attributes().conflict;
  if (conflict == model::ConflictNumber::none) return;
  for (const ItemNumber side :
       {ItemNumber{static_cast<std::uint64_t>(conflict)}, rooms_.tally.copyOf(conflict)}) {
    const Item* item = edit->find(side);
    if (!item || item->attributes().conflict != conflict) continue;
    model::Attributes attributes = item->attributes();
    attributes.conflict = model::ConflictNumber::none;
    edit.setAttributes(side, std::move(attributes));
  }
}

/// The item has no name here any more.
void Names::leave(Edit& edit, ItemNumber number) const {
  // To remove or replace a side of a conflict resolves it.
  endConflict(edit, number);
  if (isOnlyHere(*edit, edit->item(number))) {
    edit.drop(number);
    return;
  }
  edit.setHere(number, std::nullopt);
  model::Attributes attributes = edit->item(number).attributes();
  attributes.failure.reset();
  attributes.pinned = false;
  edit.setAttributes(number, std::move(attributes));
}

Task<void> Names::removeItem(ItemNumber number) {
  std::optional<push::Verdicts::Expected> word;
  {
    Edit edit(rooms_.tree, model::Origin::program);
    const Item& item = require(*edit, number);
    if (edit->anyHereIn(number)) throw posixError(ENOTEMPTY);
    checkRemoval(item);
    const bool isSending = rooms_.outbox.isSending(number);
    leave(edit, number);
    const bool isDropped = !edit->find(number);
    edit.commit();
    if (isDropped) co_return;
    if (!isSending) word.emplace(rooms_.verdicts.expect(number));
  }
  rooms_.outbox.noteChange(number, milliseconds(0));
  if (!word) co_return;
  auto answer = rooms_.verdicts.word(*std::move(word), rooms_.options.verdictWait);
  co_await std::move(answer);
}

/// What is to be removed from a folder that may be changed.
Task<ItemNumber> Names::childToRemove(ItemNumber folder, std::string name, Kind kind) {
  {
    const View view(rooms_.tree);
    if (!mayWrite(requireFolder(*view, folder))) throw posixError(EACCES);
  }
  std::optional<NSError> problem;
  try {
    co_await prepare(folder, Refresher::Need::usable);
  } catch (const NSError& error) {
    problem = error;
  }
  const View view(rooms_.tree);
  const Item* item = rooms_.forms.child(*view, folder, name);
  if (!item) throw problem ? *problem : posixError(ENOENT);
  if (item->kind() != kind) throw posixError(item->isFolder() ? EISDIR : ENOTDIR);
  co_return item->number();
}

Task<void> Names::removeFile(ItemNumber folder, std::string name) {
  auto found = childToRemove(folder, std::move(name), Kind::file);
  const ItemNumber number = co_await std::move(found);
  co_await removeItem(number);
}

Task<void> Names::removeFolder(ItemNumber folder, std::string name) {
  auto found = childToRemove(folder, std::move(name), Kind::folder);
  const ItemNumber number = co_await std::move(found);
  // The kernel lets no other call at the folder until this is answered.
  co_await prepare(number, Refresher::Need::soon);
  co_await removeItem(number);
}

/// After a power failure a name must not show less than the file that it showed before; and what
/// could be fetched again is the only copy once it has a name that is not sent.
void Names::syncSource(const Move& move) const {
  UniqueFd file;
  {
    const View view(rooms_.tree);
    const Item* source = rooms_.forms.child(*view, move.source.folder, move.source.name);
    if (!source || source->isFolder() || source->here()->content == Content::none) return;
    const Item* target = rooms_.forms.child(*view, move.target.folder, move.target.name);
    const bool replaces = target && target != source;
    if (!replaces && !staysHere(move.target.name, Kind::file)) return;
    file = rooms_.contents.open(source->here()->content);
  }
  if (::fdatasync(file.get()) != 0) throw posixError(errno);
  rooms_.contents.files().syncNames();
}

void Names::checkMove(const State& state, const Move& move) const {
  const Item& source = requireChild(state, move.source);
  const Item& folder = requireFolder(state, move.source.folder);
  const Item& newFolder = requireFolder(state, move.target.folder);
  if (!mayWrite(folder)) throw posixError(EACCES);
  checkNewName(state, newFolder, move.target.name, source.kind());
  requireCapable(source, Capability::allowsRenaming);
  if (&folder != &newFolder && rooms_.options.refuseMovesBetweenFolders) throw posixError(EXDEV);
  if (source.isFolder() && isWithin(state, newFolder, source.number())) throw posixError(EINVAL);
  const Item* target = rooms_.forms.child(state, move.target.folder, move.target.name);
  if (!target || target == &source) return;
  if (!move.replaces) throw posixError(EEXIST);
  if (target->isFolder() != source.isFolder()) {
    throw posixError(target->isFolder() ? EISDIR : ENOTDIR);
  }
  if (target->isFolder()) {
    if (state.anyHereIn(target->number())) throw posixError(ENOTEMPTY);
    checkRemoval(*target);
  } else if (!mayWrite(*target)) {
    throw posixError(EPERM);
  }
}

Names::Moved Names::apply(Move move) {
  Edit edit(rooms_.tree, model::Origin::program);
  checkMove(*edit, move);
  const Item& source = requireChild(*edit, move.source);
  const ItemNumber number = source.number();
  const Item* target = rooms_.forms.child(*edit, move.target.folder, move.target.name);
  // It may be there under another form of the name.
  if (target) move.target.name = target->here()->place.name;
  if (target == &source) return {};
  const bool isHere = staysHere(move.target.name, source.kind());
  const bool wasHere = source.attributes().localOnly;
  const bool replaces = target && target != &source;
  const bool needsContents = source.isFile() && source.here()->content == Content::none &&
                             ((replaces && target->there()) || (isHere && !wasHere));
  if (needsContents) return {number, true, std::nullopt};

  const Content content = source.here()->content;
  const ItemNumber replaced = replaces ? target->number() : ItemNumber::none;
  // A folder has to leave the place before another one comes.
  if (replaces && source.isFile()) plan::followReplacement(edit, replaced, number);
  if (replaces) leave(edit, replaced);
  edit.setHere(number, Here{move.target, content});
  // What the provider has of it is another item from now on, which is to go.
  const bool isParted =
      isHere && !wasHere && (edit->item(number).there() || edit->item(number).agreed());
  if (isParted) plan::settle(edit, {.resolution = plan::Resolution::part, .item = number});
  model::Attributes attributes = edit->item(number).attributes();
  attributes.localOnly = isHere;
  attributes.failure.reset();
  edit.setAttributes(number, std::move(attributes));
  const bool isSending = rooms_.outbox.isSending(number);
  edit.commit();

  const Item& moved = edit->item(number);
  const bool hasContents = moved.isFile() && content != Content::none && !isHere &&
                           (!moved.agreed() || moved.agreed()->content != content || replaces);
  Moved result{number, false, std::nullopt};
  const bool awaitsWord = !hasContents && !isSending && !moved.isInStep();
  if (awaitsWord) result.word.emplace(rooms_.verdicts.expect(number));
  if (replaces && edit->find(replaced)) rooms_.outbox.noteChange(replaced, milliseconds(0));
  rooms_.outbox.noteChange(number, hasContents ? rooms_.options.sendDelay : milliseconds(0));
  return result;
}

Task<void> Names::rename(Move move) {
  {
    const View view(rooms_.tree);
    requireFolder(*view, move.source.folder);
    requireFolder(*view, move.target.folder);
  }
  for (;;) {
    syncSource(move);
    try {
      co_await prepare(move.source.folder, Refresher::Need::usable);
    } catch (const NSError&) {
      // What is known of it may be enough.
    }
    co_await prepare(move.target.folder, Refresher::Need::fresh);
    ItemNumber target = ItemNumber::none;
    {
      const View view(rooms_.tree);
      const Item* item = rooms_.forms.child(*view, move.target.folder, move.target.name);
      if (item && item->isFolder()) target = item->number();
    }
    // A folder that is to be replaced must be known to be empty.
    if (target != ItemNumber::none) co_await prepare(target, Refresher::Need::soon);
    Moved moved = apply(move);
    if (moved.needsContents) {
      co_await fetchWhileAnswered(moved.item);
      continue;
    }
    if (moved.word) {
      auto word = rooms_.verdicts.word(*std::move(moved.word), rooms_.options.verdictWait);
      co_await std::move(word);
    }
    co_return;
  }
}

/// Fetches for a caller during whose wait the kernel lets no other call at the folder: waits as
/// long as the provider answers anything, and only shortly when it does not.
Task<void> Names::fetchWhileAnswered(ItemNumber file) {
  auto shot = std::make_shared<OneShot<void>>(rooms_.scope);
  rooms_.scope.spawn(fetchFor(file, shot));
  rooms_.scope.spawn(watchFetch(file, shot));
  auto fetched = OneShot<void>::result(std::move(shot));
  co_await std::move(fetched);
}

Task<void> Names::fetchFor(ItemNumber file, std::shared_ptr<OneShot<void>> shot) {
  try {
    co_await rooms_.downloader.fetch(file);
    shot->resolve();
  } catch (const NSError&) {
    shot->reject(std::current_exception());
  }
}

/// A download says nothing before its end: a listing tells whether anything answers.
Task<void> Names::watchFetch(ItemNumber file, std::shared_ptr<OneShot<void>> shot) {
  for (;;) {
    auto pause = std::make_shared<OneShot<void>>(rooms_.scope);
    rooms_.scope.postAfter(rooms_.options.listingWait, [pause] { pause->resolve(); });
    auto paused = OneShot<void>::result(std::move(pause));
    co_await std::move(paused);
    if (shot.use_count() == 1) co_return;
    ItemNumber folder = ItemNumber::none;
    {
      const View view(rooms_.tree);
      const Item* item = view->find(file);
      if (item && item->here()) folder = item->here()->place.folder;
    }
    try {
      if (folder != ItemNumber::none) co_await prepare(folder, Refresher::Need::fresh);
    } catch (const NSError&) {
      // Whether the provider is slow is what counts.
    }
    if (rooms_.health.isSlow()) {
      shot->reject(std::make_exception_ptr(posixError(ETIMEDOUT)));
      co_return;
    }
  }
}

}  // namespace kestrowan::replica::calls
