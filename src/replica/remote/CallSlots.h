#pragma once

#include <coroutine>
#include <cstddef>
#include <deque>
#include <utility>

#include "async/Loop.h"
#include "platform/base/GrowingLimit.h"

namespace kestrowan::replica::remote {

/// So many calls of a kind at once: as many as usual, and up to `most` while those that run take
/// long and others wait. The others wait in the order in which they came. Used on the loop only;
/// a member of what makes the calls.
class CallSlots {
 public:
  CallSlots(async::Loop& loop, std::size_t usual, std::size_t most);
  CallSlots(async::Loop& loop, std::size_t count) : CallSlots(loop, count, count) {}
  CallSlots(const CallSlots&) = delete;
  CallSlots& operator=(const CallSlots&) = delete;

  /// Given back when it goes.
  class Slot {
   public:
    explicit Slot(CallSlots& slots) : slots_(&slots) {}
    Slot(Slot&& other) noexcept : slots_(std::exchange(other.slots_, nullptr)) {}
    Slot& operator=(Slot&&) = delete;
    ~Slot() {
      if (slots_) slots_->give();
    }

   private:
    CallSlots* slots_;
  };

  /// While this lives one more call may run: one of those that do does not count.
  class Excuse {
   public:
    explicit Excuse(CallSlots& slots);
    Excuse(const Excuse&) = delete;
    Excuse& operator=(const Excuse&) = delete;
    ~Excuse() { --slots_.excused_; }

   private:
    CallSlots& slots_;
  };
  std::size_t excused() const { return excused_; }

  /// Awaitable: returns when there is a slot, which a `Slot` then has to give back.
  auto take() {
    struct Awaiter {
      CallSlots& slots;
      bool await_ready() const { return slots.takeFree(); }
      void await_suspend(std::coroutine_handle<> handle) const { slots.wait(handle); }
      void await_resume() const noexcept {}
    };
    return Awaiter{*this};
  }

 private:
  bool takeFree();
  void wait(std::coroutine_handle<> handle);
  void give();
  void letBegin();
  void growLater();

  async::Loop& loop_;
  GrowingLimit limit_;
  std::size_t running_ = 0;
  std::size_t excused_ = 0;
  std::deque<std::coroutine_handle<>> waiting_;
  bool isToGrow_ = false;
};

}  // namespace kestrowan::replica::remote
