#pragma once

#include <Block.h>
#include <Foundation/Foundation.h>

#include <utility>

#if __has_feature(objc_arc)
#error "the shell counts references itself: compile it with -fno-objc-arc"
#endif

namespace kestrowan::macos {

/// Shared ownership of one Objective-C object, or of none: a reference that is counted up by
/// copying and down by destruction. A plain value; may be copied and destroyed on any thread.
template <typename Object>
class Retained {
 public:
  Retained() = default;
  explicit Retained(Object object) : object_([object retain]) {}
  Retained(const Retained& other) : Retained(other.object_) {}
  Retained(Retained&& other) noexcept : object_(std::exchange(other.object_, nil)) {}
  Retained& operator=(Retained other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Retained() { [object_ release]; }

  /// Takes over the reference that a new object comes with.
  static Retained adopt(Object object) {
    Retained retained;
    retained.object_ = object;
    return retained;
  }

  /// Borrowed: valid while this holder lives.
  Object get() const { return object_; }
  /// The object for a caller that does not own it, valid until the current pool is drained.
  Object autoreleased() const { return [[object_ retain] autorelease]; }

 private:
  Object object_ = nil;
};

/// Shared ownership of a block, which is copied off its caller's stack. A plain value that can be
/// called like a function, on any thread, also after its caller has returned.
template <typename Block>
class Handler {
 public:
  explicit Handler(Block block) : block_(Block_copy(block)) {}
  Handler(const Handler& other) : Handler(other.block_) {}
  Handler(Handler&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  Handler& operator=(Handler other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~Handler() {
    if (block_) Block_release(block_);
  }

  template <typename... Arguments>
  void operator()(Arguments... arguments) const {
    block_(arguments...);
  }

 private:
  Block block_;
};

}  // namespace kestrowan::macos
