#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/UniqueFd.h"

namespace kestrowan {

/// What the head of an answer says of its body.
struct ArrivingHead {
  std::int64_t httpStatus = 0;
  /// Bytes; absent where nothing is announced.
  std::optional<std::int64_t> length;
  /// As the server wrote it.
  std::optional<std::string> entityTag;
};

/// The body of one download, from the end of the answer's head on, for those who want to read it
/// while it arrives. Written by the transfer thread, and shared by pointer; it may outlive the
/// transfer, whose end it does not tell. Usable from every thread. Offsets and counts are bytes.
class ArrivingBody {
 public:
  static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

  /// What a reader can have done to the transfer; both may be called when it has ended, from every
  /// thread.
  struct Controls {
    /// The reader of the body has made room.
    std::function<void()> goOn = {};
    /// Breaks the transfer off: its task throws `NSURLErrorCancelled`.
    std::function<void()> cancel = {};
  };

  /// `file` is a descriptor of the file that is being written.
  ArrivingBody(ArrivingHead head, UniqueFd file, Controls controls);
  ArrivingBody(const ArrivingBody&) = delete;
  ArrivingBody& operator=(const ArrivingBody&) = delete;

  const ArrivingHead& head() const { return head_; }
  /// Good for as long as this object lives. Its position is the writer's.
  int file() const { return file_.get(); }
  /// How much is in the file.
  std::int64_t bytes() const;

  /// Runs `function` once, when so many bytes are in the file: at once, or on the transfer thread,
  /// where it must not block. Never, if they do not come.
  void whenReached(std::int64_t offset, std::function<void()> function);
  /// The transfer pauses once so many bytes are there, or a little more; without an end, so its
  /// reader must see to it that it goes on.
  void setLimit(std::int64_t bytes);
  void cancel() const;

  // For the transfer thread.

  /// Whether more bytes may be taken. If not, `Controls::goOn` is called once there is room.
  bool mayTake();
  /// So many bytes are in the file now.
  void noteReached(std::int64_t bytes);

 private:
  const ArrivingHead head_;
  const UniqueFd file_;
  const Controls controls_;
  mutable std::mutex mutex_;  // guards what follows; not held while a function runs
  std::int64_t bytes_ = 0;
  std::int64_t limit_ = kNoLimit;
  bool isPaused_ = false;
  std::vector<std::pair<std::int64_t, std::function<void()>>> awaited_;
};

}  // namespace kestrowan
