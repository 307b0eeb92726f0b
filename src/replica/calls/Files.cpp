#include "replica/calls/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "replica/calls/Shown.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "replica/pull/FolderDate.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica::calls {

using model::Content;
using model::Edit;
using model::FileTime;
using model::Item;
using model::ItemNumber;
using model::View;
using pull::Refresher;
using remote::ErrorClass;
using std::chrono::milliseconds;

namespace {

/// How long `close` and `fsync` wait for the provider, when they are to.
constexpr milliseconds kContentsWait{10 * 60 * 1000};
constexpr std::size_t kMostAttributeBytes = 65536;

bool isToBeSent(const Item* item) {
  return item && item->here() && !item->isInStep();
}

}  // namespace

Files::Files(const Rooms& rooms) : rooms_(rooms), changes_(rooms) {}

Attributes Files::attributes(ItemNumber number) const {
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (item && item->here()) return shown(*view, *item, rooms_.openItems);
  }
  const auto left = rooms_.openItems.left(number);
  if (!left) throw posixError(ESTALE);
  return left->attributes;
}

void Files::requireOpenable(ItemNumber number, OpenMode mode) const {
  if (mode.write) rooms_.history.requireRoom();
  bool isLeft = false;
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (item && item->isFolder()) throw posixError(EISDIR);
    isLeft = !item || !item->here();
    if (!isLeft && mode.write && !mayWrite(*item)) throw posixError(EACCES);
  }
  if (isLeft) {
    const auto left = rooms_.openItems.left(number);
    if (!left || left->content == Content::none) throw posixError(ESTALE);
  }
  // Before anything is fetched, or made empty.
  rooms_.openItems.requirePlace(number);
}

/// A program that opens a file wants to see what others closed before.
Task<void> Files::lookAtFolder(ItemNumber number) {
  ItemNumber folder = ItemNumber::none;
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (item && item->here() && item->there()) folder = item->there()->place.folder;
  }
  if (folder == ItemNumber::none) co_return;
  if (rooms_.refresher.isPrepared(folder, Refresher::Need::fresh)) co_return;
  try {
    co_await rooms_.refresher.prepare(folder, Refresher::Need::fresh);
  } catch (const NSError&) {
    // What is here can be opened all the same.
  }
}

/// The contents that can be opened now; `none` when they are to be fetched first.
Content Files::openable(ItemNumber number) const {
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (item && item->here()) return item->here()->content;
  }
  const auto left = rooms_.openItems.left(number);
  if (!left || left->content == Content::none) throw posixError(ESTALE);
  return left->content;
}

Task<std::shared_ptr<OpenFile>> Files::open(ItemNumber number, OpenMode mode) {
  requireOpenable(number, mode);
  if (!mode.truncate) rooms_.readAhead.noteOpened(number, mode.caller.get());
  co_await lookAtFolder(number);
  for (;;) {
    if (mode.truncate) changes_.empty(number);
    const Content content = openable(number);
    if (content != Content::none) co_return opened(number, content, mode.write);
    auto waiting = rooms_.background.turn(mode.caller, sizeOf(number));
    const auto turn = co_await std::move(waiting);
    // Contents that came a moment ago may have been given up again to make room.
    auto fetching = fetch(number, turn || !mayStream(number, mode));
    auto stream = co_await std::move(fetching);
    if (!stream) continue;
    if (auto file = openedArriving(number, std::move(stream))) co_return file;
  }
}

/// Of the contents that the provider has.
std::int64_t Files::sizeOf(ItemNumber number) const {
  const View view(rooms_.tree);
  const Item* item = view->find(number);
  return item && item->there() ? item->there()->size : 0;
}

/// Whether the file may be read while its contents arrive. A program is run from whole ones.
bool Files::mayStream(ItemNumber number, OpenMode mode) const {
  if (mode.write || !rooms_.options.watchArrival || rooms_.options.streamFrom <= 0) return false;
  constexpr std::uint16_t kRunning = 0111;
  const View view(rooms_.tree);
  const Item* item = view->find(number);
  return item && item->there() && item->there()->size >= rooms_.options.streamFrom &&
         (item->attributes().mode.value_or(0) & kRunning) == 0;
}

/// Null when something else is to be read of the file now.
std::shared_ptr<OpenFile> Files::openedArriving(ItemNumber number, pull::Stream::Reader stream) {
  rooms_.openItems.handOver(number);
  std::shared_ptr<OpenContents> contents;
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    const bool isShown = item && item->here() && item->here()->content == Content::none &&
                         item->there() && item->there()->version == stream->version();
    if (!isShown) return nullptr;
    const auto seen = shown(*view, *item, rooms_.openItems);
    contents = rooms_.openItems.openArriving(number, std::move(stream), seen.modified);
  }
  rooms_.space.noteUse(number);
  return std::make_shared<OpenFile>(*this, static_cast<Rid>(number), std::move(contents), false);
}

/// Null when the contents are here now.
Task<pull::Stream::Reader> Files::fetch(ItemNumber number, bool isWhole) {
  pull::Stream::Reader stream;
  std::optional<NSError> problem;
  try {
    if (isWhole) {
      co_await rooms_.downloader.fetch(number);
    } else {
      auto opening = rooms_.downloader.open(number);
      stream = co_await std::move(opening);
    }
  } catch (const NSError& error) {
    problem = error;
  }
  if (problem) co_await explain(number, *problem);
  if (!stream) requireHope(number);
  co_return stream;
}

void Files::requireHope(ItemNumber number) const {
  const View view(rooms_.tree);
  const Item* item = view->find(number);
  // Contents that the provider has, but that are not what is shown here, are waited for in vain.
  if (item && item->here() && item->here()->content == Content::none && item->there() &&
      item->there()->content != Content::none) {
    throw posixError(EIO);
  }
  if (item && item->here() && item->here()->content == Content::none && !item->there()) {
    throw posixError(EIO);
  }
}

/// Fails a call on an item whose error leaves open what is wrong only after a look at its folder.
Task<void> Files::explain(ItemNumber number, NSError error) {
  const ErrorClass kind = remote::errorClass(error);
  if (kind != ErrorClass::ambiguous && kind != ErrorClass::gone) throw error;
  ItemNumber folder = ItemNumber::none;
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (item && item->there()) folder = item->there()->place.folder;
  }
  if (folder == ItemNumber::none) throw error;
  co_await rooms_.refresher.prepare(folder, Refresher::Need::forced);
  const View view(rooms_.tree);
  const Item* item = view->find(number);
  if (!item || !item->there()) throw posixError(ESTALE);
  throw error;
}

std::shared_ptr<OpenFile> Files::opened(ItemNumber number, Content content, bool isWritable) {
  rooms_.openItems.handOver(number);
  auto contents = rooms_.openItems.open(number, content, isWritable);
  if (isWritable) noteChangeDate(number, *contents);
  rooms_.space.noteUse(number);
  return std::make_shared<OpenFile>(*this, static_cast<Rid>(number), std::move(contents),
                                    isWritable);
}

/// Writes move the date of the item's last change on.
void Files::noteChangeDate(ItemNumber number, OpenContents& contents) const {
  const View view(rooms_.tree);
  const Item* item = view->find(number);
  const auto changed = item ? item->attributes().changed : std::nullopt;
  if (!changed) return;
  const auto nanoseconds = changed->time_since_epoch().count();
  contents.changed = std::max<std::int64_t>(contents.changed, nanoseconds);
}

void Files::closed(const OpenFile& file) {
  const ItemNumber number{file.rid()};
  if (file.isWritable()) changes_.keepWritten(number, *file.contents());
  const bool wasLast = rooms_.openItems.close(number, file.isWritable());
  if (!wasLast) return;
  bool isPending = false;
  bool isUnmerged = false;
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    isPending = isToBeSent(item);
    isUnmerged = item && !item->isMerged();
  }
  // What the provider changed meanwhile was left for later.
  if (isUnmerged) {
    rooms_.outbox.noteChange(number, milliseconds(0));
  } else if (isPending) {
    rooms_.outbox.noteChange(number, rooms_.options.sendDelay);
  }
}

Task<void> Files::flush(std::shared_ptr<OpenFile> file) {
  const ItemNumber number{file->rid()};
  if (const auto unreported = rooms_.refusals.takeUnreported(number)) throw *unreported;
  if (!file->isWritable()) co_return;
  changes_.keepWritten(number, *file->contents());
  std::optional<push::Verdicts::Expected> arrival;
  bool hasFailed = false;
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (!isToBeSent(item)) co_return;
    if (rooms_.options.closeWaits) {
      arrival.emplace(rooms_.verdicts.expect(number, item->here()->content));
    }
    hasFailed = item->attributes().failure.has_value();
  }
  if (arrival) {
    rooms_.openItems.setAwaited(number);
    rooms_.outbox.noteUrgent(number, milliseconds(0));
    auto arrived = rooms_.verdicts.arrival(*std::move(arrival), kContentsWait);
    co_await std::move(arrived);
  } else if (!hasFailed) {
    rooms_.outbox.noteChange(number, rooms_.options.sendDelay);
  }
}

Task<void> Files::fsync(std::shared_ptr<OpenFile> file) {
  const ItemNumber number{file->rid()};
  if (file->isArriving()) co_return;
  UniqueFd synced;
  file->read([&](int fd) {
    synced = UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    // A copy that takes the place of the file from now on is synced as it is made.
    file->contents()->isPromised = true;
    return 0;
  });
  // Takes long, and no program that wants to read, write or send waits for it.
  if (!synced || ::fdatasync(synced.get()) != 0) throw posixError(errno);
  rooms_.contents.files().syncNames();
  changes_.keepWritten(number, *file->contents());
  rooms_.durability.sync();
  std::optional<push::Verdicts::Expected> arrival;
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (!isToBeSent(item)) co_return;
    if (rooms_.options.fsyncWaits) {
      arrival.emplace(rooms_.verdicts.expect(number, item->here()->content));
    }
  }
  if (arrival) {
    rooms_.openItems.setAwaited(number);
    rooms_.outbox.noteUrgent(number, milliseconds(0));
    auto arrived = rooms_.verdicts.arrival(*std::move(arrival), kContentsWait);
    co_await std::move(arrived);
  } else {
    rooms_.openItems.setUrgent(number);
    rooms_.outbox.noteUrgent(number, rooms_.options.sendDelay);
  }
}

Task<Attributes> Files::setAttributes(ItemNumber number, AttributeChange change) {
  if (change.size) {
    {
      const View view(rooms_.tree);
      const Item* item = view->find(number);
      if (item && item->isFolder()) throw posixError(EISDIR);
    }
    if (*change.size < 0) throw posixError(EINVAL);
    const OpenMode mode{.read = true, .write = true, .truncate = *change.size == 0};
    const auto file = co_await open(number, mode);
    if (*change.size != 0) cut(number, *file, *change.size);
  }
  const bool hasMore = change.mode || change.modified || change.accessed || !change.size;
  if (hasMore && !setKeptOfLeft(number, change)) setKept(number, change);
  co_return attributes(number);
}

/// Cuts contents that may be changed, or makes them longer. The size is noted first: what the disk
/// does not take leaves them whole.
void Files::cut(ItemNumber number, OpenFile& file, std::int64_t size) {
  const int result = file.write([&](int fd) {
    struct stat status;
    if (::fstat(fd, &status) != 0) return errno;
    noteSize(number, size);
    if (::ftruncate(fd, size) == 0) return 0;
    const int error = errno;
    noteSize(number, status.st_size);
    return error;
  });
  if (result != 0) throw posixError(result);
}

void Files::noteSize(ItemNumber number, std::int64_t size) {
  Edit edit(rooms_.tree, model::Origin::program);
  const Item* item = edit->find(number);
  if (!item || !item->here()) return;
  model::Attributes attributes = item->attributes();
  attributes.size = size;
  edit.setAttributes(number, std::move(attributes));
  edit.noteChange(number);
  edit.commit();
}

/// Whether the item is no more, and so the change lasts as long as it is known.
bool Files::setKeptOfLeft(ItemNumber number, const AttributeChange& change) {
  {
    const View view(rooms_.tree);
    const Item* item = view->find(number);
    if (item && item->here()) return false;
  }
  auto left = rooms_.openItems.left(number);
  if (!left) throw posixError(ESTALE);
  if (change.mode) left->attributes.mode = *change.mode & kModeBits;
  if (change.modified) left->attributes.modified = *change.modified;
  if (change.accessed) left->attributes.accessed = *change.accessed;
  const FileTime changed{std::chrono::nanoseconds(left->attributes.changed)};
  left->attributes.changed = model::later(changed, rooms_.now()).time_since_epoch().count();
  rooms_.openItems.changeLeft(number, left->attributes);
  return true;
}

void Files::setKept(ItemNumber number, const AttributeChange& change) {
  Edit edit(rooms_.tree, model::Origin::program);
  const Item& item = require(*edit, number);
  model::Attributes attributes = item.attributes();
  const auto open = rooms_.openItems.contentsOf(number);
  if (change.mode) attributes.mode = static_cast<std::uint16_t>(*change.mode & kModeBits);
  if (change.mode && open) open->mayHavePrivileges = true;
  if (change.accessed) attributes.accessed = FileTime(std::chrono::nanoseconds(*change.accessed));
  if (change.modified) {
    const FileTime modified{std::chrono::nanoseconds(*change.modified)};
    attributes.modified = modified;
    // Only what changes at the provider from now on makes it newer.
    if (item.isFolder()) pull::doubtFolderDate(edit, number);
    if (item.here()->content != Content::none) {
      rooms_.contents.setModified(item.here()->content, modified);
    }
    if (open) open->modified = *change.modified;
  }
  edit.setAttributes(number, std::move(attributes));
  edit.noteChange(number);
  edit.commit();
}

std::string Files::userAttribute(ItemNumber number, std::string_view name) const {
  const View view(rooms_.tree);
  const auto& user = require(*view, number).attributes().user;
  if (!user) throw posixError(ENODATA);
  const auto found = user->find(std::string(name));
  if (found == user->end()) throw posixError(ENODATA);
  return found->second;
}

std::vector<std::string> Files::userAttributes(ItemNumber number) const {
  const View view(rooms_.tree);
  std::vector<std::string> names;
  const auto& user = require(*view, number).attributes().user;
  if (!user) return names;
  for (const auto& attribute : *user) names.push_back(attribute.first);
  return names;
}

void Files::setUserAttribute(ItemNumber number, std::string_view name, std::string_view value,
                             SetMode mode) {
  Edit edit(rooms_.tree, model::Origin::program);
  model::Attributes attributes = require(*edit, number).attributes();
  model::UserAttributes user = attributes.user ? *attributes.user : model::UserAttributes();
  const bool isThere = user.contains(std::string(name));
  if (isThere && mode == SetMode::create) throw posixError(EEXIST);
  if (!isThere && mode == SetMode::replace) throw posixError(ENODATA);
  user[std::string(name)] = std::string(value);
  std::size_t bytes = 0;
  for (const auto& attribute : user) bytes += attribute.first.size() + attribute.second.size();
  if (bytes > kMostAttributeBytes) throw posixError(ENOSPC);
  attributes.user = std::move(user);
  edit.setAttributes(number, std::move(attributes));
  edit.noteChange(number);
  edit.commit();
}

void Files::removeUserAttribute(ItemNumber number, std::string_view name) {
  Edit edit(rooms_.tree, model::Origin::program);
  model::Attributes attributes = require(*edit, number).attributes();
  if (!attributes.user || attributes.user->erase(std::string(name)) == 0) {
    throw posixError(ENODATA);
  }
  if (attributes.user->empty()) attributes.user.reset();
  edit.setAttributes(number, std::move(attributes));
  edit.noteChange(number);
  edit.commit();
}

}  // namespace kestrowan::replica::calls
