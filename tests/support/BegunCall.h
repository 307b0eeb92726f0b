#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <utility>

#include "platform/base/Fulfil.h"
#include "platform/foundation/NSError.h"
#include "replica/Replica.h"

namespace kestrowan::test {

/// A call of the replica that was begun, and what it comes to. It goes on without the object.
template <typename T>
class BegunCall {
 public:
  BegunCall(replica::Replica& replica, Task<T> task) {
    auto promise = std::make_shared<std::promise<T>>();
    future_ = promise->get_future().share();
    replica.start(fulfil(std::move(promise), std::move(task)));
  }

  bool hasEnded() const {
    return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }
  bool hasSucceeded() const {
    if (!hasEnded()) return false;
    try {
      future_.get();
      return true;
    } catch (const NSError&) {
      return false;
    }
  }
  /// What it came to; throws its error. Only of one that has ended.
  decltype(auto) result() const { return future_.get(); }

 private:
  std::shared_future<T> future_;
};

}  // namespace kestrowan::test
