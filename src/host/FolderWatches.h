#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "replica/Replica.h"

namespace kestrowan::host {

/// Finds out every few seconds which folders of the mount programs watch, and tells the replica, on
/// a thread of its own. Owned by the host.
class FolderWatches {
 public:
  /// The replica must outlive it.
  explicit FolderWatches(replica::Replica& replica) : replica_(replica) {}
  FolderWatches(const FolderWatches&) = delete;
  FolderWatches& operator=(const FolderWatches&) = delete;
  /// Returns when the thread has ended.
  ~FolderWatches();

  /// Begins. `device`: the mount's, as in the table of mounts. Throws `NSError` when the system
  /// gives no thread.
  void start(const std::string& device);

 private:
  void run();
  void look() const;

  replica::Replica& replica_;
  std::uint64_t device_ = 0;
  std::mutex mutex_;  // guards what follows
  bool isEnding_ = false;
  std::condition_variable ending_;
  std::thread thread_;
};

}  // namespace kestrowan::host
