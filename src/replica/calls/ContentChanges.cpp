#include "replica/calls/ContentChanges.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

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
constexpr std::int64_t kCopiedSize = std::int64_t{64} << 20;
constexpr std::int64_t kNanoseconds = 1'000'000'000;

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
std::optional<store::Contents::Made> ContentChanges::copy(ItemNumber file, const Preparation& todo,
                                                          int source) {
  struct stat status;
  if (::fstat(source, &status) != 0) throw posixError(errno);
  if (!todo.mustCopy && status.st_size > kCopiedSize) return std::nullopt;
  const auto begun = rooms_.scope.now();
  auto made = rooms_.contents.clone(source);
  if (todo.mustCopy) {
    const auto time = std::chrono::duration_cast<milliseconds>(rooms_.scope.now() - begun);
    rooms_.openItems.noteCopy(file, time);
  }
  return made;
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
  Preparation todo;
  {
    const View view(rooms_.tree);
    todo = preparation(*view, file, number);
  }
  const bool needsCopy = todo.mustCopy || todo.isShared;
  auto made = needsCopy ? copy(file, todo, source.get()) : std::nullopt;
  // What a power failure must not take is made durable before the item depends on it.
  if (todo.isShared || (made && contents.isPromised)) {
    if (::fdatasync(made ? made->file() : source.get()) != 0) throw posixError(errno);
    rooms_.contents.files().syncNames();
  }
  std::lock_guard still(contents.mutex);
  // A caller that finds it not ready prepares it again.
  if (contents.number == number) apply(file, contents, todo, made);
}

/// Whether the contents may be changed now.
bool ContentChanges::apply(ItemNumber file, OpenContents& contents, const Preparation& todo,
                           std::optional<store::Contents::Made>& made) {
  const Content before = contents.number;
  Content now = before;
  {
    Edit edit(rooms_.tree, model::Origin::program);
    if (preparation(*edit, file, before) != todo) return false;
    if (todo.isItems && !todo.isReady()) {
      if (made) {
        now = made->number();
        edit.setHere(file, Here{edit->item(file).here()->place, now});
      }
      forgetBytes(edit, file, before);
      Attributes attributes = edit->item(file).attributes();
      forgetFailure(attributes);
      edit.setAttributes(file, std::move(attributes));
      edit.commit();
    }
  }
  if (made) {
    contents.number = now;
    contents.file = made->keep();
    // Without an item it lives as long as it is open.
    if (!todo.isItems)
      rooms_.contents.files().removeIfPossible(static_cast<ContentNumber>(made->number()));
  }
  contents.mayChange = true;
  contents.lastWrite =
      std::chrono::duration_cast<milliseconds>(rooms_.scope.now().time_since_epoch()).count();
  if (todo.isItems) rooms_.outbox.noteChange(file, kQuietTime);
  return true;
}

void ContentChanges::noteWritten(ItemNumber, OpenContents& contents) {
  struct stat status;
  if (::fstat(contents.file.get(), &status) == 0) {
    contents.size = status.st_size;
    contents.modified = status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
  }
  contents.isWritten = true;
  contents.lastWrite =
      std::chrono::duration_cast<milliseconds>(rooms_.scope.now().time_since_epoch()).count();
}

void ContentChanges::keepWritten(ItemNumber file, OpenContents& contents) {
  if (!contents.isWritten) return;
  Edit edit(rooms_.tree, model::Origin::program);
  const Item* item = edit->find(file);
  if (!item || !item->here() || item->here()->content != contents.number) return;
  Attributes attributes = item->attributes();
  const FileTime modified{std::chrono::nanoseconds(contents.modified.load())};
  if (attributes.size == contents.size && attributes.modified == modified) return;
  attributes.size = contents.size;
  attributes.modified = modified;
  edit.setAttributes(file, std::move(attributes));
  edit.commit();
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
      forgetFailure(attributes);
      edit.setAttributes(file, std::move(attributes));
      edit.commit();
    }
    const Content number = made.number();
    UniqueFd empty = made.keep();
    if (open) {
      open->file = std::move(empty);
      open->number = number;
      open->mayChange = true;
      open->size = 0;
      open->modified = FileTime(rooms_.now()).time_since_epoch().count();
    }
    const bool isWritten = rooms_.openItems.isWritten(file);
    rooms_.outbox.noteChange(file, isWritten ? kQuietTime : rooms_.options.sendDelay);
    return;
  }
}

}  // namespace kestrowan::replica::calls
