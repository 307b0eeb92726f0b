#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Abandonment.h"
#include "platform/network/ReceivedBody.h"

namespace kestrowan {

/// One request that has ended: what it was and how it went, never what it or its answer contained.
struct FinishedTransfer {
  std::string httpMethod;
  std::string url;
  /// 0 for a request without an answer.
  std::int64_t httpStatus = 0;
  std::chrono::steady_clock::time_point finishedAt;
  /// Null for a body that nothing reads.
  std::shared_ptr<const ReceivedBody> body;
  /// From when it was begun.
  std::chrono::milliseconds duration{0};
  /// Of the bodies.
  std::int64_t bytesSent = 0;
  std::int64_t bytesReceived = 0;
  /// Of `NSURLErrorDomain`, when no whole answer came; 0 otherwise.
  std::int64_t errorCode = 0;
  /// That of the task that it was made for, if that had one.
  std::weak_ptr<const Abandonment> abandonment = {};

  /// Whether the answer said yes, and its body was not whole, or is still being read.
  bool isDoubtful() const;
};

/// The latest requests of this process that have ended, so many at most. Each is in the list before
/// the task that it was made for completes. Usable from every thread.
class FinishedTransfers {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kMost = 1000;

  static FinishedTransfers& shared();

  /// Told of each request that ends, on the thread that ends it, without a lock. Must neither block
  /// nor throw.
  using Observer = std::function<void(const FinishedTransfer& transfer)>;
  /// Replaces the one before; an empty function ends it.
  void setObserver(Observer observer);

  /// Drops the oldest one beyond the limit; those that are not doubtful go first.
  void add(FinishedTransfer transfer);
  /// The oldest first.
  std::vector<FinishedTransfer> transfers() const;
  /// The latest one of the tasks that have this abandonment; nothing for null.
  std::optional<FinishedTransfer> latestOf(const std::shared_ptr<const Abandonment>& caller) const;

  /// Whether a doubtful answer came to such a request since then, or may have come: what was
  /// dropped may have been one. `isMeant` gets the request's URL, and must not call back.
  bool hasDoubtful(std::string_view httpMethod, Clock::time_point since,
                   const std::function<bool(const std::string& url)>& isMeant) const;

 private:
  mutable std::mutex mutex_;                  // guards what follows
  std::shared_ptr<const Observer> observer_;  // null for none
  std::deque<FinishedTransfer> transfers_;
  Clock::time_point lastDropped_ = Clock::time_point::min();  // of the doubtful
};

}  // namespace kestrowan
