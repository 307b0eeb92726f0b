#include "replica/store/Reservations.h"

#include <sqlite3.h>

#include <algorithm>

namespace kestrowan::replica::store {

namespace {

constexpr std::uint64_t kBlock = 1 << 17;

std::uint64_t firstFree(Database& database, const char* statement) {
  const auto number = database.number(statement);
  if (number < 1) database.fail(SQLITE_CORRUPT);
  return static_cast<std::uint64_t>(number);
}

std::uint64_t after(model::Content content) {
  return static_cast<std::uint64_t>(content) + 1;
}

}  // namespace

Reservations::Reservations(Database& database)
    : save_(database, "UPDATE series SET item=?1,intent=?2,content=?3"),
      reserved_{firstFree(database, "SELECT item FROM series"),
                firstFree(database, "SELECT intent FROM series"),
                firstFree(database, "SELECT content FROM series")},
      wanted_(reserved_),
      used_(reserved_) {}

bool Reservations::isExceededBy(const model::Changes& changes) {
  used_.item = std::max(used_.item, static_cast<std::uint64_t>(changes.nextItem));
  used_.intent = std::max(used_.intent, static_cast<std::uint64_t>(changes.nextIntent));
  for (const model::Item* item : changes.items) {
    if (item->here()) used_.content = std::max(used_.content, after(item->here()->content));
    if (item->there()) used_.content = std::max(used_.content, after(item->there()->content));
  }
  for (const model::Intent* intent : changes.intents) {
    used_.content = std::max(used_.content, after(intent->content));
  }
  return used_.item > reserved_.item || used_.intent > reserved_.intent ||
         used_.content > reserved_.content;
}

void Reservations::reserve() {
  wanted_ = {used_.item + kBlock, used_.intent + kBlock, used_.content + kBlock};
  save(wanted_);
}

void Reservations::reserveContents() {
  wanted_ = reserved_;
  wanted_.content = used_.content + kBlock;
  save(wanted_);
}

void Reservations::giveBack() {
  save({used_.item, used_.intent, reserved_.content});
}

void Reservations::save(const Next& next) {
  save_.bind(1, static_cast<std::int64_t>(next.item));
  save_.bind(2, static_cast<std::int64_t>(next.intent));
  save_.bind(3, static_cast<std::int64_t>(next.content));
  save_.run();
}

}  // namespace kestrowan::replica::store
