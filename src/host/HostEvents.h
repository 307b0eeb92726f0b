#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <future>
#include <mutex>
#include <optional>

#include "host/Process.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// A command's wish that the mount end. Its promise gets how many changes were not sent, or the
/// `NSError` for which the mount goes on.
struct UnmountRequest {
  bool force = false;
  std::promise<std::int64_t> left;
};

/// What the host's main thread waits for. The first three functions from every thread,
/// the rest from the main thread alone.
class HostEvents {
 public:
  /// Made before the process has other threads. Throws `NSError`.
  HostEvents();

  /// The mount has ended.
  void setMountEnded();
  std::future<std::int64_t> postUnmountRequest(bool force);
  /// Ends a `wait`.
  void wake() const;

  /// Waits for something to happen, for at most `limit`. Signals count from here on.
  void wait(std::chrono::milliseconds limit);

  /// How many signals have come so far.
  unsigned signals() const { return signals_; }
  bool mountEnded() const;
  std::optional<UnmountRequest> takeUnmountRequest();
  /// Whether a request waits that wants the mount gone whoever uses it.
  bool forceIsWanted() const;
  /// Refuses the requests that wait, but for those that `forceIsWanted` tells of.
  void refuseRequests(const std::exception_ptr& reason);
  /// Answers the requests that wait, and those that come from now on.
  void answerRequests(std::int64_t left);

 private:
  const StopSignals stopSignals_;
  UniqueFd wakeUp_;
  unsigned signals_ = 0;

  mutable std::mutex mutex_;  // guards what follows
  bool mountEnded_ = false;
  std::optional<std::int64_t> answer_;
  std::deque<UnmountRequest> requests_;
};

}  // namespace kestrowan::host
