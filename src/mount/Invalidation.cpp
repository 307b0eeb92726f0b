#include "mount/Invalidation.h"

#include <utility>

#include "platform/base/Threads.h"

namespace kestrowan::mount {

Invalidation::Invalidation(KernelCache& cache) : cache_(cache) {}

Invalidation::~Invalidation() {
  stop();
}

void Invalidation::start() {
  std::lock_guard lock(mutex_);
  running_ = true;
  entryThread_ = startThread("the invalidation of names", [this] { tellEntries(); });
  itemThread_ = startThread("the invalidation of items", [this] { tellItems(); });
}

void Invalidation::stop() {
  {
    std::lock_guard lock(mutex_);
    running_ = false;
    entriesQueued_.notify_all();
    itemsQueued_.notify_all();
  }
  if (entryThread_.joinable()) entryThread_.join();
  if (itemThread_.joinable()) itemThread_.join();

  std::unordered_map<replica::Rid, ItemNews> left;
  {
    std::lock_guard lock(mutex_);
    left.swap(items_);
    entries_.clear();
    itemOrder_.clear();
  }
  for (auto& [item, news] : left) {
    for (auto& function : news.afterwards) guarded("the invalidation of items", function);
  }
}

void Invalidation::entryChanged(replica::Rid folder, const std::string& name) {
  std::lock_guard lock(mutex_);
  if (!running_) return;
  entries_[folder].insert(name);
  entriesQueued_.notify_one();
}

void Invalidation::itemChanged(replica::Rid item, bool contents) {
  std::lock_guard lock(mutex_);
  if (!running_) return;
  const auto [news, isNew] = items_.try_emplace(item);
  news->second.attributes = true;
  news->second.contents |= contents;
  if (!isNew) return;
  itemOrder_.push_back(item);
  itemsQueued_.notify_one();
}

void Invalidation::whenKnown(replica::Rid item, std::function<void()> function) {
  {
    std::lock_guard lock(mutex_);
    if (running_ && (itemInHand_ == item || items_.contains(item))) {
      items_[item].afterwards.push_back(std::move(function));
      // Somebody waits for it now.
      itemOrder_.push_front(item);
      itemsQueued_.notify_one();
      return;
    }
  }
  function();
}

void Invalidation::tellEntries() {
  std::unique_lock lock(mutex_);
  while (true) {
    entriesQueued_.wait(lock, [this] { return !running_ || !entries_.empty(); });
    if (!running_) return;
    auto entries = std::exchange(entries_, {});
    for (const auto& entry : entries) {
      for (const auto& name : entry.second) {
        if (!running_) return;
        lock.unlock();
        guarded("the invalidation of names", [&] { cache_.dropEntry(entry.first, name); });
        lock.lock();
      }
    }
  }
}

void Invalidation::tellItems() {
  std::unique_lock lock(mutex_);
  while (true) {
    itemsQueued_.wait(lock, [this] { return !running_ || !itemOrder_.empty(); });
    if (!running_) return;
    const auto item = itemOrder_.front();
    itemOrder_.pop_front();
    auto node = items_.extract(item);
    if (node.empty()) continue;
    auto& news = node.mapped();
    itemInHand_ = item;
    lock.unlock();
    guarded("the invalidation of items", [&] {
      if (news.attributes) cache_.dropItem(item, news.contents);
    });
    for (auto& function : news.afterwards) guarded("the invalidation of items", function);
    // What the functions hold is let go of without the lock.
    news.afterwards.clear();
    lock.lock();
    itemInHand_ = 0;
  }
}

}  // namespace kestrowan::mount
