#pragma once

#include <chrono>
#include <functional>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

namespace kestrowan {

/// Writes the exception that is being handled to the log, as one that left `place`. Usable from
/// every thread; does not throw.
void logEscaped(std::string_view place) noexcept;

/// Runs `action`, and lets no exception out: it becomes a line in the log that names `place`.
/// Whether `action` came to its end. For the top of a thread, and for each turn of a thread that
/// must go on.
template <typename Action>
bool guarded(std::string_view place, Action&& action) noexcept {
  try {
    std::forward<Action>(action)();
    return true;
  } catch (...) {
    logEscaped(place);
    return false;
  }
}

/// Starts a thread that runs `body`, guarded, under the name `place`, which must be a literal.
/// Every thread of the product is started here. Throws `NSError` of `NSPOSIXErrorDomain`, EAGAIN
/// for the most part, when the system gives none; `body` is then not run.
std::thread startThread(const char* place, std::function<void()> body);

/// Does `action`, which may find no memory, until it does: for work that must not get lost, while
/// what is under way gives memory back.
template <typename Action>
void untilThereIsMemory(const Action& action) {
  while (true) {
    try {
      action();
      return;
    } catch (const std::bad_alloc&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
}

}  // namespace kestrowan
