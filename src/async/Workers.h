#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrowan::async {

/// A few threads for what takes long: they may be blocked. Made when they are needed, and kept.
/// Owned by a loop; usable from every thread. They take no signals but those of their own faults.
/// What a function throws is a line in the log.
class Workers {
 public:
  Workers() = default;
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  /// Runs what was posted, then joins the threads. Not from within a function of them.
  ~Workers();

  /// Runs `function` on one of the threads, as soon as one is free. Throws `NSError` when there is
  /// none and the system gives none.
  void post(std::function<void()> function);

 private:
  static constexpr std::size_t kMost = 8;

  void run() noexcept;

  std::mutex mutex_;  // guards what follows
  std::condition_variable posted_;
  std::deque<std::function<void()>> queue_;
  std::size_t idle_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace kestrowan::async
