#include "replica/calls/OpenItems.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "replica/model/View.h"

namespace kestrowan::replica::calls {

using async::Loop;
using model::Content;
using model::Item;
using model::ItemNumber;
using model::View;
using std::chrono::milliseconds;

namespace {

/// A file that a program keeps open for writing is sent after so long without a write.
constexpr milliseconds kQuietTime{30000};
/// Copying a file that is written again and again takes no more than one part in so many.
constexpr int kCopyFactor = 20;
constexpr std::int64_t kNanoseconds = 1'000'000'000;

void readStatus(OpenContents& contents) {
  struct stat status;
  if (::fstat(contents.file.get(), &status) != 0) throw posixError(errno);
  contents.size = status.st_size;
  contents.modified = status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
}

}  // namespace

OpenItems::OpenItems(const model::Tree& tree, const Loop& loop, store::Contents& contents,
                     std::size_t openFiles)
    : tree_(tree), loop_(loop), contents_(contents), places_(openFiles) {}

void OpenItems::remember(ItemNumber item) {
  std::lock_guard lock(mutex_);
  lookups_.add(item);
}

void OpenItems::forget(ItemNumber item, std::uint64_t count) {
  std::lock_guard lock(mutex_);
  lookups_.take(item, count);
  dropIfUnused(item);
}

bool OpenItems::Entry::saysNothing() const {
  return handles == 0 && contents.expired() && !left && !isUrgent && !isAwaited &&
         copyTime == milliseconds(0);
}

/// Null for an item that nothing knows.
OpenItems::Entry* OpenItems::entryOf(ItemNumber item) {
  if (lookups_.has(item)) return &entries_[item];
  const auto found = entries_.find(item);
  return found == entries_.end() ? nullptr : &found->second;
}

void OpenItems::dropIfUnused(ItemNumber item) {
  const auto found = entries_.find(item);
  if (found == entries_.end()) return;
  const bool isKnown = found->second.handles > 0 || lookups_.has(item);
  if (!isKnown || found->second.saysNothing()) entries_.erase(found);
}

void OpenItems::requirePlace(ItemNumber file) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  if (found == entries_.end() || found->second.contents.expired()) places_.require();
}

std::shared_ptr<OpenContents> OpenItems::open(ItemNumber file, Content content, bool isWritable) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  auto contents = found == entries_.end() ? nullptr : found->second.contents.lock();
  if (!contents) {
    contents = std::make_shared<OpenContents>();
    contents->place = places_.take();
    contents->file = contents_.open(content);
    contents->number = content;
    readStatus(*contents);
  }
  Entry& entry = entries_[file];
  entry.contents = contents;
  ++entry.handles;
  if (isWritable) ++entry.writers;
  return contents;
}

std::shared_ptr<OpenContents> OpenItems::openArriving(ItemNumber file, pull::Stream::Reader stream,
                                                      std::int64_t modified) {
  std::lock_guard lock(mutex_);
  Entry& entry = entries_[file];
  auto contents = entry.contents.lock();
  if (!contents) {
    contents = std::make_shared<OpenContents>();
    contents->place = places_.take();
    contents->number = stream->number();
    contents->size = stream->size();
    contents->modified = modified;
    contents->stream = std::move(stream);
    entry.contents = contents;
  }
  ++entry.handles;
  return contents;
}

void OpenItems::handOver(ItemNumber file) {
  const auto contents = contentsOf(file);
  if (!contents) return;
  Content here = Content::none;
  {
    const View view(tree_);
    const Item* item = view->find(file);
    if (item && item->here()) here = item->here()->content;
  }
  pull::Stream::Reader read;
  {
    std::lock_guard still(contents->mutex);
    if (!contents->stream) return;
    if (!contents->stream->hasFailed()) {
      if (here == Content::none) return;
      contents->file = contents_.open(here);
      contents->number = here;
      read = std::move(contents->stream);
    }
  }
  if (read) return read->stir();
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  if (found != entries_.end() && found->second.contents.lock() == contents) {
    found->second.contents.reset();
  }
}

bool OpenItems::close(ItemNumber file, bool isWritable) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  if (found == entries_.end()) return false;
  --found->second.handles;
  const bool isLast = isWritable && --found->second.writers == 0;
  if (isLast) found->second.sentOpenAt.reset();
  dropIfUnused(file);
  return isLast;
}

bool OpenItems::isOpen(ItemNumber file) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  return found != entries_.end() && found->second.handles > 0;
}

bool OpenItems::isWritten(ItemNumber file) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  return found != entries_.end() && found->second.writers > 0;
}

std::shared_ptr<OpenContents> OpenItems::contentsOf(ItemNumber file) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  return found == entries_.end() ? nullptr : found->second.contents.lock();
}

bool OpenItems::isFrozen(Content content) const {
  std::lock_guard lock(mutex_);
  return frozen_.contains(content);
}

pull::Frozen OpenItems::freeze(ItemNumber file) {
  for (;;) {
    const auto open = contentsOf(file);
    std::unique_lock<std::shared_mutex> still;
    if (open) still = std::unique_lock(open->mutex);
    pull::Frozen frozen;
    {
      const View view(tree_);
      const Item* item = view->find(file);
      if (!item || !item->here() || item->here()->content == Content::none) return frozen;
      std::lock_guard lock(mutex_);
      const auto found = entries_.find(file);
      const auto now = found == entries_.end() ? nullptr : found->second.contents.lock();
      if (now != open) continue;
      frozen.number = item->here()->content;
      ++frozen_[frozen.number];
      frozen.hold = {this, [this, number = frozen.number](void*) {
                       std::lock_guard relock(mutex_);
                       const auto held = frozen_.find(number);
                       if (--held->second == 0) frozen_.erase(held);
                     }};
      if (open) open->mayChange = false;
    }
    frozen.size = contents_.sizeOf(frozen.number);
    return frozen;
  }
}

milliseconds OpenItems::openWait(ItemNumber file) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  if (found == entries_.end() || found->second.writers == 0) return milliseconds(0);
  const Entry& entry = found->second;
  if (entry.isAwaited) return milliseconds(0);
  const auto contents = entry.contents.lock();
  const Loop::Moment lastWrite(milliseconds(contents ? contents->lastWrite.load() : 0));
  Loop::Moment until = entry.isUrgent ? Loop::Moment() : lastWrite + kQuietTime;
  if (entry.sentOpenAt) {
    // Sending it may cost a copy each time.
    until = std::max(until, *entry.sentOpenAt + std::max(kQuietTime, entry.copyTime * kCopyFactor));
  }
  const auto wait = std::chrono::ceil<milliseconds>(until - loop_.now());
  return std::max(wait, milliseconds(0));
}

void OpenItems::noteSending(ItemNumber file) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(file);
  if (found == entries_.end()) return;
  found->second.isUrgent = false;
  found->second.isAwaited = false;
  if (found->second.writers > 0) found->second.sentOpenAt = loop_.now();
  dropIfUnused(file);
}

void OpenItems::noteCopy(ItemNumber file, milliseconds time) {
  std::lock_guard lock(mutex_);
  if (Entry* entry = entryOf(file)) entry->copyTime = time;
}

void OpenItems::setAwaited(ItemNumber file) {
  std::lock_guard lock(mutex_);
  if (Entry* entry = entryOf(file)) entry->isAwaited = true;
}

void OpenItems::setUrgent(ItemNumber file) {
  std::lock_guard lock(mutex_);
  if (Entry* entry = entryOf(file)) entry->isUrgent = true;
}

void OpenItems::keepLeft(ItemNumber item, const Attributes& seen, Content content) {
  std::lock_guard lock(mutex_);
  Entry* entry = entryOf(item);
  if (entry && !entry->left) entry->left = Left{seen, content};
}

std::optional<OpenItems::Left> OpenItems::left(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  if (found == entries_.end() || !found->second.left) return std::nullopt;
  Left left = *found->second.left;
  if (const auto contents = found->second.contents.lock()) {
    left.attributes.size = contents->size;
    left.attributes.modified = contents->modified;
    if (contents->isWritten) {
      left.attributes.changed = std::max<std::int64_t>(left.attributes.changed, contents->changed);
    }
  }
  return left;
}

void OpenItems::changeLeft(ItemNumber item, const Attributes& seen) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  if (found != entries_.end() && found->second.left) found->second.left->attributes = seen;
}

}  // namespace kestrowan::replica::calls
