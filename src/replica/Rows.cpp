#include "replica/Rows.h"

#include <algorithm>
#include <chrono>
#include <unordered_set>

#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::replica {

namespace {

constexpr std::chrono::milliseconds kRetryInterval{1000};
constexpr std::size_t kKeptRoom = 1024;

const Logger& replicaLog() {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  return log;
}

}  // namespace

Rows::Rows(ItemStore& store, async::Loop& loop, std::mutex& mutex)
    : store_(store), loop_(loop), mutex_(mutex) {}

Rows::Batch::~Batch() {
  if (--rows_.batches_ == 0 && !rows_.error_) rows_.write();
}

void Rows::save(const ItemPtr& item) {
  add({item->rid, item});
}

void Rows::remove(Rid rid) {
  add({rid, nullptr});
}

void Rows::keep(HistoryEntry entry) {
  leaving_.push_back(std::move(entry));
  if (batches_ == 0 && !error_) write();
}

std::optional<HistoryEntry> Rows::takeBack(ContentNumber content) {
  const auto found = std::find_if(leaving_.begin(), leaving_.end(),
                                  [&](const auto& entry) { return entry.content == content; });
  if (found == leaving_.end()) return std::nullopt;
  std::optional<HistoryEntry> entry = std::move(*found);
  leaving_.erase(found);
  return entry;
}

bool Rows::isKeeping(ContentNumber content) const {
  return std::any_of(leaving_.begin(), leaving_.end(),
                     [&](const auto& entry) { return entry.content == content; });
}

void Rows::add(Change change) {
  waiting_.push_back(std::move(change));
  // While nothing can be written, who needs it tries, and the timer does.
  if (batches_ == 0 && !error_) write();
}

void Rows::requireWritten() {
  if (!areWritten()) write();
  if (!areWritten()) throw *error_;
}

void Rows::write() {
  if (areWritten()) return;
  try {
    writeAll();
    waiting_.clear();
    leaving_.clear();
    // A large listing's room is needed no more than once.
    if (waiting_.capacity() > kKeptRoom) waiting_.shrink_to_fit();
    if (error_) replicaLog().error("the database can be written again", {});
    error_.reset();
  } catch (...) {
    const auto error = caughtError();
    const bool isNew = !error_;
    error_ = error;
    // A call that needs the rows written tries again besides.
    guarded("the database", [&] {
      if (isNew) {
        replicaLog().error("the database cannot be written: %{public}s",
                           {error.localizedDescription()});
      }
      tryLater();
    });
  }
}

void Rows::writeAll() {
  std::optional<ItemStore::Transaction> transaction;
  if (waiting_.size() + leaving_.size() > 1) transaction.emplace(store_);
  for (const HistoryEntry& entry : leaving_) store_.keep(entry);
  for (const auto& [rid, item] : waiting_) {
    if (item) {
      store_.save(*item);
    } else {
      store_.remove(rid);
    }
  }
  if (transaction) transaction->commit();
}

void Rows::tryLater() {
  // The last change of an item is all that counts.
  std::unordered_set<Rid> later;
  std::vector<Change> kept;
  for (auto change = waiting_.rbegin(); change != waiting_.rend(); ++change) {
    if (later.insert(change->first).second) kept.push_back(std::move(*change));
  }
  waiting_ = std::move(kept);
  if (std::exchange(retrying_, true)) return;
  loop_.postAfter(kRetryInterval, [this] {
    std::lock_guard lock(mutex_);
    retrying_ = false;
    write();
  });
}

}  // namespace kestrowan::replica
