#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "replica/Observer.h"

namespace kestrowan::mount {

/// What the kernel remembers of a mount, and can be told to drop. Each call may wait until requests
/// that concern the same folder or file have been answered.
class KernelCache {
 public:
  virtual ~KernelCache() = default;

  virtual void dropEntry(replica::Rid folder, const std::string& name) = 0;
  /// The attributes, and the pages too when `contents` says so.
  virtual void dropItem(replica::Rid item, bool contents) = 0;
};

/// Tells the kernel what changed behind its back: queues, with a thread each, because telling it
/// may have to wait for a request that is being answered. Names and items are told apart, since a
/// folder can be locked for as long as somebody waits for a listing, and an item never is.
///
/// Belongs to one mount. Usable from every thread; nothing but `stop` waits.
class Invalidation : public replica::Observer {
 public:
  /// `cache` must live until `stop` has returned.
  explicit Invalidation(KernelCache& cache);
  Invalidation(const Invalidation&) = delete;
  Invalidation& operator=(const Invalidation&) = delete;
  ~Invalidation() override;

  /// Throws `NSError` when the system gives no thread.
  void start();
  /// Returns when both threads have ended. What was queued is not told any more.
  void stop();

  void entryChanged(replica::Rid folder, const std::string& name) override;
  void itemChanged(replica::Rid item, bool contents) override;

  /// Runs `function` when the kernel knows everything that has been queued for `item`: at once, or
  /// on this object's thread. It must not throw, nor wait for anything.
  void whenKnown(replica::Rid item, std::function<void()> function);

 private:
  struct ItemNews {
    bool attributes = false;
    bool contents = false;
    std::vector<std::function<void()>> afterwards;
  };

  void tellEntries();
  void tellItems();

  KernelCache& cache_;
  std::mutex mutex_;  // guards what follows
  bool running_ = false;
  std::condition_variable entriesQueued_;
  std::unordered_map<replica::Rid, std::unordered_set<std::string>> entries_;
  std::condition_variable itemsQueued_;
  std::unordered_map<replica::Rid, ItemNews> items_;
  /// The order in which items are told. A number may stand here twice, or for nothing any more.
  std::deque<replica::Rid> itemOrder_;
  /// The item that is being told; 0 for none.
  replica::Rid itemInHand_ = 0;

  std::thread entryThread_;
  std::thread itemThread_;
};

}  // namespace kestrowan::mount
