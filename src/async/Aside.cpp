#include "async/Aside.h"

#include <memory>

#include "platform/base/OneShot.h"

namespace kestrowan::async {

Task<void> runAside(Loop& loop, Loop::Function function) {
  const auto end = std::make_shared<OneShot<void>>(loop);
  loop.postAside([end, &function] {
    try {
      function();
      end->resolve();
    } catch (...) {
      end->reject(detail::currentException());
    }
  });
  auto ended = OneShot<void>::result(end);
  co_await std::move(ended);
}

}  // namespace kestrowan::async
