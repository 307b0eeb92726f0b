#pragma once

#include <atomic>
#include <memory>

namespace kestrowan {

/// What the reader of one answer's body found out about it. Shared by the session that delivers
/// the body, the parser that reads it, and the list of finished transfers. Usable from every
/// thread.
class ReceivedBody {
 public:
  /// While it lives, its thread delivers a piece of that body. Not nested.
  class Delivery {
   public:
    explicit Delivery(std::shared_ptr<ReceivedBody> body);
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;
    ~Delivery();
  };

  /// The body of which this thread delivers a piece; null outside of any delivery.
  static std::shared_ptr<ReceivedBody> beingDelivered();

  /// Said by the reader, once it has read all.
  void setWhole(bool whole) { whole_ = whole; }
  /// Whether the reader has said that the body was whole; false for one that was never read.
  bool isWhole() const { return whole_; }

 private:
  std::atomic<bool> whole_ = false;
};

}  // namespace kestrowan
