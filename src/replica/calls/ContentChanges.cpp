#include "replica/calls/ContentChanges.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "replica/Log.h"
#include "replica/calls/Shown.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"

namespace kestrowan::replica::calls {

using model::Attributes;
using model::Content;
using model::Edit;
using model::FileTime;
using model::Here;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::State;
using model::There;
using model::View;
using std::chrono::milliseconds;

namespace {

/// A file that a program keeps open for writing is sent after so long without a write.
constexpr milliseconds kQuietTime{30000};
/// Of larger contents no version before a change in place is kept where a copy shares no blocks.
constexpr std::int64_t kMostCopied = std::int64_t{64} << 20;
constexpr std::int64_t kNanoseconds = 1'000'000'000;
/// Mode bits that a change of contents takes.
constexpr std::uint16_t kPrivileges = S_ISUID | S_ISGID;

/// The bytes of that state are not on this disk any more.
void forgetBytes(Edit& edit, ItemNumber number, Content content) {
  const Item& item = edit->item(number);
  if (item.agreed() && item.agreed()->content == content) {
    There agreed = *item.agreed();
    agreed.content = Content::none;
    edit.setAgreed(number, std::move(agreed));
  }
  if (item.there() && item.there()->content == content) {
    There there = *item.there();
    there.content = Content::none;
    edit.setThere(number, std::move(there));
  }
}

/// A change by a program ends what is known of a failure before.
void forgetFailure(Attributes& attributes) {
  attributes.failure.reset();
}

}  // namespace

ContentChanges::Preparation ContentChanges::preparation(const State& state, ItemNumber number,
                                                        Content content) const {
  Preparation result;
  const Item* item = state.find(number);
  result.isItems = item && item->here() && item->here()->content == content;
  const auto& intents = state.intents().all();
  const bool isAsked = std::any_of(intents.begin(), intents.end(),
                                   [&](const Intent& intent) { return intent.content == content; });
  result.mustCopy = isAsked || rooms_.openItems.isFrozen(content);
  result.isShared = result.isItems && ((item->agreed() && item->agreed()->content == content) ||
                                       (item->there() && item->there()->content == content));
  return result;
}

/// A copy to be changed in the place of contents that are needed as they are.
store::Contents::Made ContentChanges::copy(ItemNumber file, int source) {
  const auto begun = rooms_.scope.now();
  auto made = rooms_.contents.clone(source);
  const auto time = std::chrono::duration_cast<milliseconds>(rooms_.scope.now() - begun);
  rooms_.openItems.noteCopy(file, time);
  return made;
}

/// Throws when what the provider never had could be copied, and was not.
std::optional<store::Contents::Made> ContentChanges::cloneForHistory(int source,
                                                                     Confirmed confirmed) {
  try {
    return rooms_.contents.cloneCheaply(source, kMostCopied);
  } catch (const NSError&) {
    if (confirmed == Confirmed::never) throw;
    return std::nullopt;
  }
}

/// Keeps what is about to be changed in place, where that costs little enough.
void ContentChanges::keepVersion(ItemNumber file, int source) {
  HistoryEntry entry;
  auto before = ContentNumber{0};
  {
    const View view(rooms_.tree);
    const Item* item = view->find(file);
    if (!item || !item->here()) return;
    before = static_cast<ContentNumber>(item->here()->content);
    entry.path = shownPath(*view, *item);
    const Attributes& attributes = item->attributes();
    const auto& agreed = item->agreed();
    const bool isConfirmed = agreed && agreed->content == item->here()->content;
    entry.confirmed = attributes.localOnly ? Confirmed::notSent : Confirmed::never;
    if (isConfirmed) entry.confirmed = Confirmed::once;
    if (isConfirmed) entry.version = agreed->version.text;
  }
  if (!rooms_.history.isVersionDue(entry.path, before)) return;
  struct stat status;
  if (::fstat(source, &status) != 0) throw posixError(errno);
  if (status.st_size == 0) return;
  const auto begun = rooms_.scope.now();
  auto copy = cloneForHistory(source, entry.confirmed);
  if (!copy) return;
  const auto cost = std::chrono::duration_cast<milliseconds>(rooms_.scope.now() - begun);
  entry.content = static_cast<ContentNumber>(copy->number());
  entry.item = static_cast<Rid>(file);
  entry.size = status.st_size;
  entry.modified = status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
  entry.reason = HistoryReason::replaced;
  entry.at = std::chrono::floor<std::chrono::seconds>(rooms_.now()).time_since_epoch().count();
  rooms_.history.keepVersion(entry, cost.count());
  copy->keep();
}

void ContentChanges::prepare(ItemNumber file, OpenContents& contents) {
  std::lock_guard one(contents.preparing);
  UniqueFd source;
  Content number = Content::none;
  {
    std::shared_lock still(contents.mutex);
    if (contents.mayChange) return;
    number = contents.number;
    source = UniqueFd(::fcntl(contents.file.get(), F_DUPFD_CLOEXEC, 0));
    if (!source) throw posixError(errno);
  }
  const bool isInHistory = rooms_.history.find(static_cast<ContentNumber>(number)).has_value();
  Preparation todo;
  {
    const View view(rooms_.tree);
    todo = preparation(*view, file, number);
  }
  std::optional<store::Contents::Made> made;
  // What has no name any more is in the history as its last program leaves it.
  if (todo.mustCopy || (isInHistory && todo.isItems)) {
    made.emplace(copy(file, source.get()));
  } else if (todo.isItems) {
    keepVersion(file, source.get());
  }
  // What a power failure must not take is made durable before the item depends on it.
  if (todo.isShared || (made && contents.isPromised)) {
    if (::fdatasync(made ? made->file() : source.get()) != 0) throw posixError(errno);
    rooms_.contents.files().syncNames();
  }
  std::lock_guard still(contents.mutex);
  // A caller that finds it not ready prepares it again.
  if (contents.number == number) apply(file, contents, todo, made);
}

/// Notes that the contents may be changed now, unless what was prepared is not what is needed.
void ContentChanges::apply(ItemNumber file, OpenContents& contents, const Preparation& todo,
                           std::optional<store::Contents::Made>& made) {
  const Content before = contents.number;
  {
    Edit edit(rooms_.tree, model::Origin::program);
    if (preparation(*edit, file, before) != todo) return;
    if (todo.isItems) {
      if (made) edit.setHere(file, Here{edit->item(file).here()->place, made->number()});
      if (todo.isShared || made) forgetBytes(edit, file, before);
      Attributes attributes = edit->item(file).attributes();
      forgetFailure(attributes);
      edit.setAttributes(file, std::move(attributes));
      edit.commit();
    }
  }
  if (made) {
    contents.number = made->number();
    contents.file = made->keep();
    // Without an item it lives as long as it is open.
    if (!todo.isItems) {
      rooms_.contents.files().removeIfPossible(static_cast<ContentNumber>(contents.number));
    }
  }
  rooms_.history.noteWritten(static_cast<ContentNumber>(contents.number));
  contents.mayChange = true;
  contents.lastWrite =
      std::chrono::duration_cast<milliseconds>(rooms_.scope.now().time_since_epoch()).count();
  if (todo.isItems) rooms_.outbox.noteChange(file, kQuietTime);
}

void ContentChanges::noteWritten(ItemNumber file, OpenContents& contents) {
  struct stat status;
  if (::fstat(contents.file.get(), &status) == 0) {
    contents.size = status.st_size;
    contents.modified = status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
  }
  const FileTime changed{std::chrono::nanoseconds(contents.changed.load())};
  contents.changed = model::later(changed, rooms_.now()).time_since_epoch().count();
  contents.isWritten = true;
  contents.lastWrite =
      std::chrono::duration_cast<milliseconds>(rooms_.scope.now().time_since_epoch()).count();
  if (contents.mayHavePrivileges.exchange(false)) dropPrivileges(file);
}

/// Contents that others may have written run with the rights of the user that runs them alone.
void ContentChanges::dropPrivileges(ItemNumber file) {
  Edit edit(rooms_.tree);
  const Item* item = edit->find(file);
  if (!item || (item->attributes().mode.value_or(0) & kPrivileges) == 0) return;
  Attributes attributes = item->attributes();
  *attributes.mode &= static_cast<std::uint16_t>(~kPrivileges);
  edit.setAttributes(file, std::move(attributes));
  edit.commit();
}

void ContentChanges::keepWritten(ItemNumber file, OpenContents& contents) {
  if (!contents.isWritten) return;
  {
    Edit edit(rooms_.tree, model::Origin::program);
    const Item* item = edit->find(file);
    if (item && item->here() && item->here()->content == contents.number) {
      Attributes attributes = item->attributes();
      const FileTime modified{std::chrono::nanoseconds(contents.modified.load())};
      if (attributes.size == contents.size && attributes.modified == modified) return;
      attributes.size = contents.size;
      attributes.modified = modified;
      attributes.changed = FileTime(std::chrono::nanoseconds(contents.changed.load()));
      edit.setAttributes(file, std::move(attributes));
      edit.commit();
      return;
    }
  }
  // A program that had it open wrote on.
  rooms_.history.resize(static_cast<ContentNumber>(contents.number), contents.size);
}

void ContentChanges::empty(ItemNumber file) {
  for (;;) {
    const auto open = rooms_.openItems.contentsOf(file);
    std::unique_lock<std::shared_mutex> still;
    if (open) still = std::unique_lock(open->mutex);
    auto made = rooms_.contents.create();
    {
      Edit edit(rooms_.tree, model::Origin::program);
      const Item& item = require(*edit, file);
      if (rooms_.openItems.contentsOf(file) != open) continue;
      const Content before = item.here()->content;
      edit.setHere(file, Here{item.here()->place, made.number()});
      forgetBytes(edit, file, before);
      Attributes attributes = item.attributes();
      attributes.size = 0;
      attributes.modified = FileTime(rooms_.now());
      if (attributes.mode) *attributes.mode &= static_cast<std::uint16_t>(~kPrivileges);
      forgetFailure(attributes);
      edit.setAttributes(file, std::move(attributes));
      edit.commit();
    }
    const Content number = made.number();
    rooms_.history.noteWritten(static_cast<ContentNumber>(number));
    UniqueFd empty = made.keep();
    pull::Stream::Reader stream;
    if (open) {
      stream = std::move(open->stream);
      open->file = std::move(empty);
      open->number = number;
      open->mayChange = true;
      open->size = 0;
      open->modified = FileTime(rooms_.now()).time_since_epoch().count();
      still.unlock();
    }
    if (stream) stream->stir();
    const bool isWritten = rooms_.openItems.isWritten(file);
    rooms_.outbox.noteChange(file, isWritten ? kQuietTime : rooms_.options.sendDelay);
    return;
  }
}

}  // namespace kestrowan::replica::calls
