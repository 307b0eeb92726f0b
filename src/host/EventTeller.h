#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/EventProcess.h"
#include "mount/WatchEvents.h"
#include "platform/base/UniqueFd.h"
#include "replica/Replica.h"

namespace kestrowan::host {

/// Has a process of its own make the calls by which the kernel tells watchers of folders what
/// changed at the server, one after another, on a thread. Nothing else waits for that process: when
/// it hangs or dies, what it was to tell is told no more, and another is started, after pauses that
/// grow. Owned by the host.
class EventTeller {
 public:
  /// The replica must outlive it.
  explicit EventTeller(replica::Replica& replica);
  EventTeller(const EventTeller&) = delete;
  EventTeller& operator=(const EventTeller&) = delete;
  /// Returns when the thread has ended, and the process was killed.
  ~EventTeller();

  /// What the mount is to know. Lives as long as the mount does.
  const std::shared_ptr<mount::WatchEvents>& events() const { return events_; }

  /// Starts the process, before there is a mount. Throws `NSError` when the system gives no thread.
  void start();
  /// From now on calls are made there. `device`: as in the table of mounts.
  void begin(const std::string& mountPoint, const std::string& device);
  /// Returns when nothing of the mount is in use by the process, for which it may be killed, and no
  /// call is made until `begin`. One that cannot be killed is not waited for.
  void hold();

  /// Whether there is a process that makes calls.
  bool isWorking() const { return isWorking_; }

 private:
  using Clock = std::chrono::steady_clock;

  /// Where calls are made.
  struct Place {
    std::string mountPoint;
    std::string device;
  };

  void run();
  void turn();
  void wait();
  void keepProcess();
  void startProcess();
  void giveUpProcess();
  void forgetEnded();
  void takeAnswer();
  void noteAnswer(int error);
  void tellNext();
  bool ask(const mount::EventCall& call);
  void endCall();
  std::optional<Place> place() const;
  std::optional<Place> enter();
  bool isEnding() const;
  void noteIdle();
  void wake() const;

  replica::Replica& replica_;
  const UniqueFd wakeUp_;
  const std::shared_ptr<mount::WatchEvents> events_;
  std::thread thread_;

  // Of the thread.
  std::unique_ptr<EventProcess> process_;
  /// Killed, and not ended yet.
  std::vector<std::unique_ptr<EventProcess>> dying_;
  std::chrono::milliseconds pause_;
  Clock::time_point nextStart_;
  /// What is left of the change that is being told; the first of them was asked for if there is a
  /// deadline.
  std::deque<mount::EventCall> calls_;
  std::optional<Clock::time_point> deadline_;

  std::atomic<bool> isWorking_ = false;

  mutable std::mutex mutex_;  // guards what follows
  bool isEnding_ = false;
  std::optional<Place> place_;
  /// Nothing of the mount is in use.
  bool isIdle_ = true;
  bool hasBegun_ = false;
  std::condition_variable changed_;
};

}  // namespace kestrowan::host
