#pragma once

#include <chrono>
#include <memory>

#include "async/Loop.h"
#include "platform/base/Task.h"

namespace kestrowan::async {

/// What one owner runs on a loop: its coroutines, and the functions and timers that it posts
/// through the scope. After `close` nothing of it runs any more. A member of its owner; the loop
/// must outlive it. Usable from every thread, but for what says otherwise.
class Scope : public Loop {
 public:
  explicit Scope(Loop& loop);
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
  /// Closes it.
  ~Scope() override;

  /// Waits for the functions that are running, on the loop and beside it, and frees the coroutines
  /// where they wait. What is posted or spawned from now on never runs. The owner closes the scope
  /// before anything goes that a function or a coroutine uses. Not from within one of them.
  void close();

  /// Begins `task` on the loop, as a coroutine that nothing awaits. It may wait only for what
  /// resumes it through this scope. An exception that leaves it is a line in the log. Throws when
  /// there is no memory to begin it.
  void spawn(Task<void> task);

  /// The same, but the coroutine begins at once, on the calling thread. Not while the scope may be
  /// closed.
  void start(Task<void> task);

  /// Waits until no coroutine is left, and no function that was posted; timers may be. Whether that
  /// came about within `limit`. Not from within a function of the loop.
  bool waitUntilEmpty(std::chrono::milliseconds limit);

  void post(Function function) override;
  TimerNumber postAfter(std::chrono::milliseconds delay, Function function) override;
  void postAside(Function function) override;
  void cancel(TimerNumber timer) override;
  Moment now() const override;
  std::int64_t wallClock() const override;

 private:
  class State;
  struct Root;

  static Root run(Task<void> task);
  /// Whether the scope is open, and so has the coroutine now.
  bool take(Root root);

  Loop& loop_;
  const std::shared_ptr<State> state_;
};

}  // namespace kestrowan::async
