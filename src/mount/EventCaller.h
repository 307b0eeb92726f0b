#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

#include <sys/types.h>

#include "mount/ExpectedCall.h"

namespace kestrowan::mount {

/// The processes that make event calls, as the mount knows them, and the call that is expected of
/// one. Each has one thread, and its number is not another's until it was waited for. Usable from
/// every thread; nothing waits.
class EventCaller {
 public:
  /// One that makes calls, and others that were killed and have not ended yet.
  static constexpr std::size_t kMostProcesses = 4;

  EventCaller() = default;
  EventCaller(const EventCaller&) = delete;
  EventCaller& operator=(const EventCaller&) = delete;

  /// Before the process makes its first call. No more than there may be.
  void add(pid_t process);
  /// Before the process is waited for, when its number may become another's.
  void remove(pid_t process);

  /// From now on `process` alone may make that call, and no other.
  void expect(pid_t process, std::shared_ptr<const ExpectedCall> call);
  /// From now on every call is refused.
  void expectNothing();

  /// Whether the thread, by whose number a request came, makes event calls. Asked for each request.
  bool isCaller(pid_t thread) const;
  /// Null when no call is expected of that thread.
  std::shared_ptr<const ExpectedCall> expectedOf(pid_t thread) const;

 private:
  void replace(pid_t former, pid_t process);

  /// 0 where there is none.
  std::array<std::atomic<pid_t>, kMostProcesses> processes_ = {};

  mutable std::mutex mutex_;  // guards what follows
  pid_t expected_ = 0;
  std::shared_ptr<const ExpectedCall> call_;
};

}  // namespace kestrowan::mount
