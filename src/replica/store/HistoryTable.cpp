#include "replica/store/HistoryTable.h"

#include <utility>

namespace kestrowan::replica {

namespace {

constexpr const char* kPut =
    "INSERT OR REPLACE INTO history VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10)";
constexpr const char* kRemove = "DELETE FROM history WHERE content=?1";
constexpr const char* kColumns =
    "SELECT content,item,path,version,size,modified,reason,at,confirmed,allocated FROM history";
constexpr const char* kFind =
    "SELECT content,item,path,version,size,modified,reason,at,confirmed,allocated FROM history"
    " WHERE content=?1";
constexpr const char* kPage =
    "SELECT content,item,path,version,size,modified,reason,at,confirmed,allocated FROM history"
    " WHERE confirmed=?1 AND (at,content)>(?2,?3) ORDER BY at,content LIMIT ?4";

/// Nothing for a row that makes no sense.
std::optional<HistoryEntry> entryOf(const Statement& row) {
  const auto content = row.number(0);
  const auto item = row.number(1);
  const auto path = row.bytes(2);
  const auto version = row.bytes(3);
  const auto size = row.number(4);
  const auto modified = row.number(5);
  const auto reason = row.number(6);
  const auto at = row.number(7);
  const auto confirmed = row.number(8);
  const auto allocated = row.number(9);
  const bool isWhole = content && item && path && version && size && modified && reason && at &&
                       confirmed && allocated;
  if (!isWhole || *content <= 0 || *item < 0 || *size < 0 || *size > kLargestSize ||
      *allocated < 0 || *allocated > kLargestSize || *at < kFirstDate || *at > kLastDate ||
      *reason < 0 || *reason > static_cast<std::int64_t>(HistoryReason::lost) || *confirmed < 0 ||
      *confirmed > static_cast<std::int64_t>(Confirmed::notSent)) {
    return std::nullopt;
  }
  HistoryEntry entry;
  entry.content = static_cast<ContentNumber>(*content);
  entry.item = static_cast<Rid>(*item);
  entry.path = *path;
  entry.version = *version;
  entry.size = *size;
  entry.allocated = *allocated;
  entry.modified = *modified;
  entry.reason = static_cast<HistoryReason>(*reason);
  entry.at = *at;
  entry.confirmed = static_cast<Confirmed>(*confirmed);
  return entry;
}

}  // namespace

HistoryTable::HistoryTable(Database& database)
    : database_(database),
      put_(database, kPut),
      remove_(database, kRemove),
      find_(database, kFind),
      page_(database, kPage) {}

void HistoryTable::put(const HistoryEntry& entry) {
  put_.bind(1, static_cast<std::int64_t>(entry.content));
  put_.bind(2, static_cast<std::int64_t>(entry.item));
  put_.bind(3, std::string_view(entry.path));
  put_.bind(4, std::string_view(entry.version));
  put_.bind(5, entry.size);
  put_.bind(6, entry.modified);
  put_.bind(7, static_cast<std::int64_t>(entry.reason));
  put_.bind(8, entry.at);
  put_.bind(9, static_cast<std::int64_t>(entry.confirmed));
  put_.bind(10, entry.allocated);
  put_.run();
}

void HistoryTable::remove(ContentNumber content) {
  remove_.bind(1, static_cast<std::int64_t>(content));
  remove_.run();
}

std::optional<HistoryEntry> HistoryTable::find(ContentNumber content) {
  find_.reset();
  find_.bind(1, static_cast<std::int64_t>(content));
  auto entry = find_.step() ? entryOf(find_) : std::nullopt;
  find_.reset();
  return entry;
}

std::vector<HistoryEntry> HistoryTable::page(Confirmed confirmed, Position after,
                                             std::size_t most) {
  std::vector<HistoryEntry> entries;
  page_.reset();
  page_.bind(1, static_cast<std::int64_t>(confirmed));
  page_.bind(2, after.at);
  page_.bind(3, static_cast<std::int64_t>(after.content));
  page_.bind(4, static_cast<std::int64_t>(most));
  while (page_.step()) {
    if (auto entry = entryOf(page_)) entries.push_back(*std::move(entry));
  }
  page_.reset();
  return entries;
}

void HistoryTable::load(const std::function<void(const HistoryEntry&)>& receive) {
  Statement rows(database_, kColumns);
  while (rows.step()) {
    if (const auto entry = entryOf(rows)) receive(*entry);
  }
}

}  // namespace kestrowan::replica
