#include "replica/store/NumberBlock.h"

#include <sqlite3.h>

namespace kestrowan::replica {

namespace {

constexpr Number kBlock = 1 << 17;
constexpr Number kLow = kBlock / 2;

Number firstFree(Database& database) {
  const auto next = database.number("SELECT next FROM numbers");
  if (next <= static_cast<std::int64_t>(kRootRid)) database.fail(SQLITE_CORRUPT);
  return static_cast<Number>(next);
}

}  // namespace

NumberBlock::NumberBlock(Database& database)
    : update_(database, "UPDATE numbers SET next=?1"), next_(firstFree(database)), end_(next_) {
  reserve();
}

bool NumberBlock::isRunningLow() const {
  return end_ - next_ < kLow;
}

void NumberBlock::reserve() {
  note(next_ + kBlock);
  end_ = next_ + kBlock;
}

void NumberBlock::giveBack() {
  note(next_);
  end_ = next_;
}

void NumberBlock::note(Number next) {
  update_.bind(1, static_cast<std::int64_t>(next));
  update_.run();
}

}  // namespace kestrowan::replica
