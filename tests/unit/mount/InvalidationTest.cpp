#include "mount/Invalidation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "support/RecordingLog.h"

namespace kestrowan::mount {
namespace {

/// Writes down what it is told, and holds the first call of a kind back when the test wants it.
class RecordingCache : public KernelCache {
 public:
  void dropEntry(replica::Rid folder, const std::string& name) override {
    entriesBegun.notify();
    entriesMayGoOn.wait();
    std::lock_guard lock(mutex_);
    entries_.emplace_back(folder, name);
  }

  void dropItem(replica::Rid item, bool contents) override {
    itemsBegun.notify();
    itemsMayGoOn.wait();
    std::lock_guard lock(mutex_);
    items_.emplace_back(item, contents);
    told_.notify_all();
  }

  void waitForItems(std::size_t count) {
    std::unique_lock lock(mutex_);
    told_.wait(lock, [&] { return items_.size() >= count; });
  }

  std::vector<std::pair<replica::Rid, std::string>> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }

  std::vector<std::pair<replica::Rid, bool>> items() const {
    std::lock_guard lock(mutex_);
    return items_;
  }

  /// A condition that stays once it has come.
  class Gate {
   public:
    explicit Gate(bool isOpen) : isOpen_(isOpen) {}
    void notify() {
      isOpen_ = true;
      isOpen_.notify_all();
    }
    void wait() const { isOpen_.wait(false); }
    void shut() { isOpen_ = false; }

   private:
    std::atomic<bool> isOpen_;
  };

  Gate entriesBegun{false};
  Gate entriesMayGoOn{true};
  Gate itemsBegun{false};
  Gate itemsMayGoOn{true};

 private:
  mutable std::mutex mutex_;
  std::condition_variable told_;
  std::vector<std::pair<replica::Rid, std::string>> entries_;
  std::vector<std::pair<replica::Rid, bool>> items_;
};

class InvalidationTest : public testing::Test {
 protected:
  InvalidationTest() { invalidation_.start(); }

  RecordingCache cache_;
  Invalidation invalidation_{cache_};
};

/// Throws once of each kind.
class ThrowingCache : public RecordingCache {
 public:
  void dropEntry(replica::Rid folder, const std::string& name) override {
    if (!std::exchange(threwEntry_, true)) throw std::bad_alloc();
    RecordingCache::dropEntry(folder, name);
  }
  void dropItem(replica::Rid item, bool contents) override {
    if (!std::exchange(threwItem_, true)) throw std::bad_alloc();
    RecordingCache::dropItem(item, contents);
  }

 private:
  bool threwEntry_ = false;
  bool threwItem_ = false;
};

TEST(InvalidationErrorTest, WhatCannotBeToldIsALineInTheLogAndTheRestIsTold) {
  const test::RecordingLog log;
  ThrowingCache cache;
  Invalidation invalidation(cache);
  invalidation.start();
  std::promise<void> known;
  invalidation.itemChanged(1, true);
  invalidation.whenKnown(1, [&] { known.set_value(); });
  known.get_future().wait();
  invalidation.itemChanged(2, true);
  cache.waitForItems(1);
  invalidation.entryChanged(1, "a");
  invalidation.entryChanged(1, "b");
  cache.entriesBegun.wait();
  invalidation.stop();
  EXPECT_EQ(cache.items()[0].first, 2u);
  EXPECT_EQ(cache.entries().size(), 1u);
  EXPECT_EQ(log.lines().size(), 2u);
}

using Items = std::vector<std::pair<replica::Rid, bool>>;

TEST_F(InvalidationTest, EntriesAreTold) {
  invalidation_.entryChanged(7, "a");
  cache_.entriesBegun.wait();
  invalidation_.stop();
  EXPECT_EQ(cache_.entries(), (std::vector{std::pair<replica::Rid, std::string>(7, "a")}));
}

TEST_F(InvalidationTest, NewsOfOneItemAreToldOnce) {
  cache_.itemsMayGoOn.shut();
  invalidation_.itemChanged(1, false);
  cache_.itemsBegun.wait();
  invalidation_.itemChanged(2, false);
  invalidation_.itemChanged(2, true);
  invalidation_.itemChanged(2, false);
  cache_.itemsMayGoOn.notify();
  std::promise<void> told;
  invalidation_.whenKnown(2, [&] { told.set_value(); });
  told.get_future().wait();
  EXPECT_EQ(cache_.items(), (Items{{1, false}, {2, true}}));
}

TEST_F(InvalidationTest, AFunctionWithoutNewsRunsAtOnce) {
  bool hasRun = false;
  invalidation_.whenKnown(5, [&] { hasRun = true; });
  EXPECT_TRUE(hasRun);
  EXPECT_TRUE(cache_.items().empty());
}

TEST_F(InvalidationTest, AFunctionWaitsForTheNewsThatAreBeingTold) {
  cache_.itemsMayGoOn.shut();
  invalidation_.itemChanged(5, true);
  cache_.itemsBegun.wait();
  std::promise<Items> seen;
  invalidation_.whenKnown(5, [&] { seen.set_value(cache_.items()); });
  auto future = seen.get_future();
  EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  cache_.itemsMayGoOn.notify();
  EXPECT_EQ(future.get(), (Items{{5, true}}));
}

TEST_F(InvalidationTest, NewsThatSomebodyWaitsForAreToldFirst) {
  cache_.itemsMayGoOn.shut();
  invalidation_.itemChanged(1, false);
  cache_.itemsBegun.wait();
  for (replica::Rid item = 2; item < 100; ++item) invalidation_.itemChanged(item, false);
  std::promise<Items> seen;
  invalidation_.whenKnown(99, [&] { seen.set_value(cache_.items()); });
  cache_.itemsMayGoOn.notify();
  EXPECT_EQ(seen.get_future().get(), (Items{{1, false}, {99, false}}));
  cache_.waitForItems(99);
  std::set<replica::Rid> distinct;
  for (const auto& [item, contents] : cache_.items()) distinct.insert(item);
  EXPECT_EQ(cache_.items().size(), 99U);
  EXPECT_EQ(distinct.size(), 99U);
}

TEST_F(InvalidationTest, ItemsAreToldWhileAFolderIsHeld) {
  cache_.entriesMayGoOn.shut();
  invalidation_.entryChanged(1, "held");
  cache_.entriesBegun.wait();
  invalidation_.itemChanged(2, true);
  std::promise<void> told;
  invalidation_.whenKnown(2, [&] { told.set_value(); });
  told.get_future().wait();
  EXPECT_EQ(cache_.items(), (Items{{2, true}}));
  cache_.entriesMayGoOn.notify();
}

TEST_F(InvalidationTest, WhoWaitsIsNotForgottenAtTheEnd) {
  cache_.itemsMayGoOn.shut();
  invalidation_.itemChanged(1, false);
  cache_.itemsBegun.wait();
  invalidation_.itemChanged(2, false);
  std::promise<void> told;
  invalidation_.whenKnown(2, [&] { told.set_value(); });
  std::thread stopping([&] { invalidation_.stop(); });
  cache_.itemsMayGoOn.notify();
  stopping.join();
  told.get_future().wait();
}

TEST_F(InvalidationTest, AfterTheEndNothingIsQueued) {
  invalidation_.stop();
  invalidation_.entryChanged(1, "a");
  invalidation_.itemChanged(1, true);
  bool hasRun = false;
  invalidation_.whenKnown(1, [&] { hasRun = true; });
  EXPECT_TRUE(hasRun);
  EXPECT_TRUE(cache_.entries().empty());
  EXPECT_TRUE(cache_.items().empty());
}

}  // namespace
}  // namespace kestrowan::mount
