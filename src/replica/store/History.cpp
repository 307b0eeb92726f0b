#include "replica/store/History.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/foundation/NSError.h"

namespace kestrowan::replica::store {

using model::Left;
using model::Origin;

namespace {

HistoryReason reasonOf(const Left& left) {
  switch (left.origin) {
    case Origin::program:
      return left.isReplaced ? HistoryReason::replaced : HistoryReason::removed;
    case Origin::user:
      return HistoryReason::discarded;
    case Origin::other:
      return left.isReplaced ? HistoryReason::updated : HistoryReason::vanished;
  }
  return HistoryReason::found;
}

Confirmed confirmedOf(const Left& left) {
  if (left.confirmed) return Confirmed::once;
  return left.attributes.localOnly ? Confirmed::notSent : Confirmed::never;
}

model::FileTime modifiedOf(const Left& left) {
  if (left.attributes.modified) return *left.attributes.modified;
  if (left.confirmed && left.confirmed->date) return model::FileTime(*left.confirmed->date);
  return {};
}

}  // namespace

History::History(TreeJournal& journal, const ContentFiles& files, const async::Loop& loop)
    : journal_(journal), files_(files), loop_(loop), table_(journal.database()) {
  journal_.setLeftTaker(this);
}

History::~History() {
  journal_.setLeftTaker(nullptr);
}

std::int64_t History::uptime() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(loop_.now().time_since_epoch())
      .count();
}

void History::load(const std::unordered_set<ContentNumber>& present) {
  journal_.change([&] {
    std::vector<ContentNumber> lost;
    std::vector<HistoryEntry> stale;
    usage_ = {};
    table_.load([&](const HistoryEntry& entry) {
      if (!present.contains(entry.content)) return lost.push_back(entry.content);
      HistoryEntry now = entry;
      now.allocated = allocated(entry);
      count(now, 1);
      if (now != entry) stale.push_back(std::move(now));
    });
    for (const ContentNumber content : lost) table_.remove(content);
    for (const HistoryEntry& entry : stale) table_.put(entry);
  });
}

HistoryUsage History::usage() const {
  HistoryUsage usage;
  journal_.look([&] { usage = usage_; });
  return usage;
}

void History::setLimit(std::int64_t bytes) {
  journal_.look([&] { limit_ = bytes; });
}

std::int64_t History::limit() const {
  std::int64_t limit = 0;
  journal_.look([&] { limit = limit_; });
  return limit;
}

void History::requireRoom() const {
  journal_.look([&] {
    if (usage_.unconfirmedBytes > limit_) throw posixError(ENOSPC);
  });
}

std::optional<HistoryEntry> History::find(ContentNumber content) const {
  std::optional<HistoryEntry> found;
  journal_.look([&] { found = table_.find(content); });
  return found;
}

std::unordered_set<ContentNumber> History::among(const std::vector<ContentNumber>& numbers) const {
  std::unordered_set<ContentNumber> found;
  journal_.look([&] {
    for (const ContentNumber number : numbers) {
      if (table_.find(number)) found.insert(number);
    }
  });
  return found;
}

std::vector<HistoryEntry> History::page(Confirmed confirmed, HistoryTable::Position after,
                                        std::size_t most) const {
  std::vector<HistoryEntry> page;
  journal_.look([&] { page = table_.page(confirmed, after, most); });
  return page;
}

std::vector<HistoryEntry> History::next(HistoryTrim& trim) const {
  std::vector<HistoryEntry> page;
  journal_.look([&] { page = trim.next(usage_); });
  return page;
}

void History::keep(std::vector<HistoryEntry> entries) {
  if (entries.empty()) return;
  for (HistoryEntry& entry : entries) entry.allocated = allocated(entry);
  journal_.change([&] {
    for (const HistoryEntry& entry : entries) table_.put(entry);
  });
  journal_.look([&] {
    for (const HistoryEntry& entry : entries) count(entry, 1);
  });
}

std::vector<HistoryEntry> History::remove(const std::vector<HistoryEntry>& entries) {
  std::vector<HistoryEntry> removed;
  if (entries.empty()) return removed;
  journal_.change([&] {
    for (const HistoryEntry& entry : entries) {
      // As it is by now.
      if (const auto found = table_.find(entry.content)) removed.push_back(*found);
    }
    for (const HistoryEntry& entry : removed) table_.remove(entry.content);
  });
  journal_.look([&] {
    for (const HistoryEntry& entry : removed) count(entry, -1);
  });
  return removed;
}

void History::resize(ContentNumber content, std::int64_t size) {
  std::optional<HistoryEntry> before;
  HistoryEntry entry;
  journal_.change([&] {
    before = table_.find(content);
    if (!before) return;
    entry = *before;
    entry.size = size;
    entry.allocated = allocated(entry);
    if (entry != *before) table_.put(entry);
  });
  if (!before) return;
  journal_.look([&] {
    count(*before, -1);
    count(entry, 1);
  });
}

void History::noteConfirmed(ContentNumber content, const NSData& version) {
  std::optional<HistoryEntry> before;
  HistoryEntry entry;
  journal_.change([&] {
    before = table_.find(content);
    if (!before || before->confirmed == Confirmed::once) return;
    entry = *before;
    entry.confirmed = Confirmed::once;
    entry.version = version;
    table_.put(entry);
  });
  if (!before || before->confirmed == Confirmed::once) return;
  journal_.look([&] {
    count(*before, -1);
    count(entry, 1);
  });
}

void History::noteWritten(ContentNumber content) {
  journal_.look([&] { pace_.noteWritten(content, uptime()); });
}

bool History::isVersionDue(const std::string& path, ContentNumber content) const {
  bool isDue = false;
  journal_.look([&] { isDue = !pace_.isSave(content, uptime()) || pace_.isDue(path, uptime()); });
  return isDue;
}

void History::keepVersion(const HistoryEntry& entry, std::int64_t cost) {
  keep({entry});
  journal_.look([&] { pace_.noteKept(entry.path, uptime(), cost); });
}

/// What is to be kept of it: nothing of empty contents, and one version a minute of those that are
/// saved again and again.
std::optional<HistoryEntry> History::entryOf(const Left& left) const {
  HistoryEntry entry;
  entry.content = static_cast<ContentNumber>(left.here.content);
  entry.item = static_cast<Rid>(left.item);
  entry.path = "/" + left.path.text();
  entry.confirmed = confirmedOf(left);
  if (left.confirmed) entry.version = left.confirmed->version.text;
  // A program that has it open may have written more than the item says.
  const auto known = left.attributes.size.value_or(left.confirmed ? left.confirmed->size : 0);
  entry.size = files_.sizeOf(entry.content).value_or(known);
  entry.allocated = allocated(entry);
  entry.modified = modifiedOf(left).time_since_epoch().count();
  entry.reason = reasonOf(left);
  const auto now = std::chrono::milliseconds(loop_.wallClock());
  entry.at = std::chrono::floor<std::chrono::seconds>(now).count();
  if (entry.size == 0) return std::nullopt;
  const bool isThinned = entry.reason == HistoryReason::replaced &&
                         pace_.isSave(entry.content, uptime()) &&
                         !pace_.isDue(entry.path, uptime());
  if (isThinned) return std::nullopt;
  return entry;
}

void History::write(const std::vector<Left>& left) {
  written_.clear();
  for (const Left& one : left) {
    const auto entry = entryOf(one);
    if (!entry || table_.find(entry->content)) continue;
    table_.put(*entry);
    written_.push_back(*entry);
  }
}

void History::confirm(bool isWritten) noexcept {
  for (const HistoryEntry& entry : written_) {
    if (!isWritten) break;
    count(entry, 1);
    if (entry.reason == HistoryReason::replaced) pace_.noteKept(entry.path, uptime());
  }
  written_.clear();
}

/// As the disk says at present.
std::int64_t History::allocated(const HistoryEntry& entry) const {
  return std::min(files_.allocated(entry.content).value_or(entry.size), kLargestSize);
}

void History::count(const HistoryEntry& entry, std::int64_t by) {
  usage_.files += by;
  usage_.bytes += by * entry.allocated;
  if (entry.confirmed != Confirmed::never) return;
  usage_.unconfirmedFiles += by;
  usage_.unconfirmedBytes += by * entry.allocated;
}

}  // namespace kestrowan::replica::store
