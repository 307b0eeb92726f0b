#pragma once

#include <functional>

namespace kestrowan {

/// Lets the current thread do itself, afterwards, what it would have to wake another thread for.
/// While an object lives, executors and loops leave with it what this thread gives them; it is done
/// when the outermost object of the thread ends. A local variable of a thread that has a turn of
/// work, and does not wait within it for anything that it gave away.
class Afterwards {
 public:
  Afterwards();
  Afterwards(const Afterwards&) = delete;
  Afterwards& operator=(const Afterwards&) = delete;
  /// Does what was left here, and what that leaves in its turn. What throws is a line in the log.
  ~Afterwards();

  /// Leaves `work` to the current thread. False when the thread takes none, or there is no memory:
  /// another thread is to be woken then.
  static bool leave(const void* owner, std::function<void()> work);
  /// Whether work of that owner was left to the current thread, which has not begun it.
  static bool has(const void* owner);
};

}  // namespace kestrowan
