#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>

#include "async/Scope.h"
#include "replica/model/Tree.h"
#include "replica/store/ContentFiles.h"
#include "replica/store/History.h"
#include "replica/store/UnusedContents.h"

namespace kestrowan::replica::store {

/// Keeps the history within its age and its size. Usable from every thread. Sizes are bytes.
class HistoryLimits {
 public:
  struct Settings {
    /// 0 for the smaller of 10 GiB and a twentieth of the disk.
    std::int64_t size = 0;
    std::chrono::seconds time{0};
    /// What is left free of the disk.
    std::int64_t freeSpaceFloor = 0;
  };

  /// All must outlive it. Tells the history its limit.
  HistoryLimits(const model::Tree& tree, async::Scope& scope, const ContentFiles& files,
                History& history, UnusedContents& unused, const Settings& settings);
  HistoryLimits(const HistoryLimits&) = delete;
  HistoryLimits& operator=(const HistoryLimits&) = delete;

  /// Lets go of what is too old or too much; goes on by itself, beside the loop,
  /// until that is done.
  void keep();

 private:
  void goOn(const std::shared_ptr<HistoryTrim>& trim);
  bool isStillAtProvider(const model::State& state, const HistoryEntry& entry) const;

  const model::Tree& tree_;
  async::Scope& scope_;
  const ContentFiles& files_;
  History& history_;
  UnusedContents& unused_;
  const Settings settings_;
  std::mutex mutex_;  // guards what follows; a leaf
  bool isRunning_ = false;
};

}  // namespace kestrowan::replica::store
