#include "async/Loop.h"

#include "platform/base/Threads.h"

namespace kestrowan::async {

void Loop::resumeLater(std::coroutine_handle<> handle) {
  untilThereIsMemory([&] { post([handle] { handle.resume(); }); });
}

}  // namespace kestrowan::async
