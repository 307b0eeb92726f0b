#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrowan::host {

/// Which requests share their places, so that those that wait for long keep no others waiting.
enum class ControlLane : std::uint8_t {
  quick,    // never waits for the server or for a program
  waiting,  // may take as long as its client is willing to wait
  ending,   // ends the mount
};

/// The threads on which the requests of the control socket are carried out: a limited number for
/// each lane, made when they are needed first. Owned by the control socket. Usable from every
/// thread.
class ControlWorkers {
 public:
  using Work = std::function<void()>;

  /// How many requests of a lane run at once. Further quick ones wait for their turn.
  static constexpr std::size_t kMostQuick = 4;
  static constexpr std::size_t kMostWaiting = 48;
  static constexpr std::size_t kMostEnding = 8;

  /// Makes the first thread of the quick and of the ending lane. Throws `NSError` when the system
  /// gives none.
  ControlWorkers();
  ControlWorkers(const ControlWorkers&) = delete;
  ControlWorkers& operator=(const ControlWorkers&) = delete;
  /// Waits until everything that was given has been done.
  ~ControlWorkers();

  /// Has `work` done soon. Throws `NSError`: EBUSY when no place of the lane is free, EAGAIN when
  /// the system gives no thread for it. `work` is then not done.
  void give(ControlLane lane, Work work);

 private:
  struct Lane {
    std::size_t most = 0;
    std::deque<Work> given;
    std::size_t idle = 0;
    std::size_t threads = 0;
    std::condition_variable changed;
  };

  Lane& at(ControlLane lane) { return lanes_[static_cast<std::size_t>(lane)]; }
  void addThread(Lane& lane);
  void run(Lane& lane);
  void stop();

  std::mutex mutex_;  // guards what follows
  std::array<Lane, 3> lanes_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace kestrowan::host
