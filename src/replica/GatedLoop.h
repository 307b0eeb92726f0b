#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "replica/Loop.h"

namespace kestrowan::replica {

/// A loop for one owner: what was given to it and has not run when it is closed never runs. Closed
/// on another thread than the loop's, it waits for the function that is running; so its owner
/// closes it before anything that such a function uses goes.
class GatedLoop : public Loop {
 public:
  explicit GatedLoop(Loop& loop) : loop_(loop), gate_(std::make_shared<Gate>()) {}
  GatedLoop(const GatedLoop&) = delete;
  GatedLoop& operator=(const GatedLoop&) = delete;
  ~GatedLoop() override { close(); }

  void close() {
    std::lock_guard lock(gate_->mutex);
    gate_->open = false;
  }

  void post(Function function) override { loop_.post(gated(std::move(function))); }
  TimerNumber postAfter(std::chrono::milliseconds delay, Function function) override {
    return loop_.postAfter(delay, gated(std::move(function)));
  }
  void cancel(TimerNumber timer) override { loop_.cancel(timer); }
  Moment now() const override { return loop_.now(); }
  std::int64_t wallClock() const override { return loop_.wallClock(); }

 private:
  struct Gate {
    std::mutex mutex;
    bool open = true;
  };

  Function gated(Function function) const {
    return [gate = gate_, function = std::move(function)] {
      std::lock_guard lock(gate->mutex);
      if (gate->open) function();
    };
  }

  Loop& loop_;
  const std::shared_ptr<Gate> gate_;
};

}  // namespace kestrowan::replica
