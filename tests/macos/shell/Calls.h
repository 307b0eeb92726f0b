#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "macos/Retained.h"

#import <FileProvider/FileProvider.h>

namespace kestrowan::test {

using macos::Retained;

constexpr auto kLongestWait = std::chrono::seconds(60);

/// What a completion handler has been called with, call by call. Shared by pointer between a test
/// and its handler; usable from every thread.
template <typename Values>
class Calls {
 public:
  void add(Values values) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(values));
    threads_.push_back(std::this_thread::get_id());
    changed_.notify_all();
  }

  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return calls_.size();
  }

  /// Waits for the first call and gives it. Fails the test when there is none or a second one.
  Values only() const {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kLongestWait, [this] { return !calls_.empty(); });
    EXPECT_EQ(calls_.size(), 1u);
    return calls_.empty() ? Values() : calls_.front();
  }

  /// The thread of the first call.
  std::thread::id thread() const {
    std::lock_guard lock(mutex_);
    return threads_.empty() ? std::thread::id() : threads_.front();
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Values> calls_;
  std::vector<std::thread::id> threads_;
};

struct ItemCall {
  Retained<id<NSFileProviderItem>> item;
  Retained<::NSError*> error;
};

struct FetchCall {
  Retained<::NSURL*> url;
  Retained<id<NSFileProviderItem>> item;
  Retained<::NSError*> error;
  /// Of the progress that the test has been given before, as the handler finds it; -1 without one.
  std::int64_t completedUnitCount = -1;
};

struct WriteCall {
  Retained<id<NSFileProviderItem>> item;
  ::NSFileProviderItemFields remainingFields = ~::NSFileProviderItemFields(0);
  bool shouldFetchContent = true;
  Retained<::NSError*> error;
};

struct DeleteCall {
  Retained<::NSError*> error;
};

using ItemCalls = std::shared_ptr<Calls<ItemCall>>;
using FetchCalls = std::shared_ptr<Calls<FetchCall>>;
using WriteCalls = std::shared_ptr<Calls<WriteCall>>;
using DeleteCalls = std::shared_ptr<Calls<DeleteCall>>;

using ItemHandler = void (^)(id<NSFileProviderItem>, ::NSError*);
using FetchHandler = void (^)(::NSURL*, id<NSFileProviderItem>, ::NSError*);
using WriteHandler = void (^)(id<NSFileProviderItem>, ::NSFileProviderItemFields, BOOL, ::NSError*);
using DeleteHandler = void (^)(::NSError*);

}  // namespace kestrowan::test
