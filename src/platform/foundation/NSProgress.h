#pragma once

#include <atomic>
#include <cstdint>

namespace kestrowan {

/// How far an operation has come, in units of its own choosing. A new one counts 0 of 0.
/// Shared by pointer between the operation and its observers; usable from every thread.
class NSProgress {
 public:
  explicit NSProgress(std::int64_t totalUnitCount = 0) : totalUnitCount_(totalUnitCount) {}

  std::int64_t totalUnitCount() const { return totalUnitCount_; }
  std::int64_t completedUnitCount() const { return completedUnitCount_; }
  void setCompletedUnitCount(std::int64_t count) { completedUnitCount_ = count; }

  /// Between 0 and 1; 0 while the total is 0.
  double fractionCompleted() const {
    return totalUnitCount_ == 0 ? 0
                                : static_cast<double>(completedUnitCount_.load()) /
                                      static_cast<double>(totalUnitCount_);
  }

 private:
  const std::int64_t totalUnitCount_;
  std::atomic<std::int64_t> completedUnitCount_ = 0;
};

}  // namespace kestrowan
