#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/network/ReceivedBody.h"

namespace kestrowan {

/// One request that was answered: what it was, never what it or its answer contained.
struct FinishedTransfer {
  std::string httpMethod;
  std::string url;
  std::int64_t httpStatus = 0;
  std::chrono::steady_clock::time_point finishedAt;
  /// Null for a body that nothing reads.
  std::shared_ptr<const ReceivedBody> body;

  /// Whether the answer said yes, and its body was not whole, or is still being read.
  bool isDoubtful() const;
};

/// The latest answers in this process, so many at most. Usable from every thread.
class FinishedTransfers {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kMost = 1000;

  static FinishedTransfers& shared();

  /// Drops the oldest one beyond the limit; those that are not doubtful go first.
  void add(FinishedTransfer transfer);
  /// The oldest first.
  std::vector<FinishedTransfer> transfers() const;

  /// Whether a doubtful answer came to such a request since then, or may have come: what was
  /// dropped may have been one. `isMeant` gets the request's URL, and must not call back.
  bool hasDoubtful(std::string_view httpMethod, Clock::time_point since,
                   const std::function<bool(const std::string& url)>& isMeant) const;

 private:
  mutable std::mutex mutex_;  // guards what follows
  std::deque<FinishedTransfer> transfers_;
  Clock::time_point lastDropped_ = Clock::time_point::min();  // of the doubtful
};

}  // namespace kestrowan
