#include "host/ControlWorkers.h"

#include <cerrno>
#include <utility>

#include "mount/DescribedError.h"
#include "platform/base/Threads.h"

namespace kestrowan::host {

ControlWorkers::ControlWorkers() {
  at(ControlLane::quick).most = kMostQuick;
  at(ControlLane::waiting).most = kMostWaiting;
  at(ControlLane::ending).most = kMostEnding;
  try {
    const std::lock_guard lock(mutex_);
    addThread(at(ControlLane::quick));
    addThread(at(ControlLane::ending));
  } catch (...) {
    stop();
    throw;
  }
}

ControlWorkers::~ControlWorkers() {
  stop();
}

void ControlWorkers::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    for (auto& lane : lanes_) lane.changed.notify_all();
  }
  for (auto& thread : threads_) thread.join();
}

void ControlWorkers::give(ControlLane which, Work work) {
  const std::lock_guard lock(mutex_);
  auto& lane = at(which);
  if (lane.idle <= lane.given.size()) {
    const bool waitsItsTurn = which == ControlLane::quick;
    if (lane.threads < lane.most) {
      try {
        addThread(lane);
      } catch (const NSError&) {
        if (!waitsItsTurn) throw;
      }
    } else if (!waitsItsTurn) {
      throw describedError(EBUSY, "too many requests at once");
    }
  }
  lane.given.push_back(std::move(work));
  lane.changed.notify_one();
}

/// Locked.
void ControlWorkers::addThread(Lane& lane) {
  threads_.reserve(threads_.size() + 1);
  threads_.push_back(startThread("a request of the control socket", [this, &lane] { run(lane); }));
  ++lane.threads;
  // It will be, before it looks at what was given.
  ++lane.idle;
}

void ControlWorkers::run(Lane& lane) {
  std::unique_lock lock(mutex_);
  while (true) {
    lane.changed.wait(lock, [&] { return stopping_ || !lane.given.empty(); });
    if (lane.given.empty()) return;
    auto work = std::move(lane.given.front());
    lane.given.pop_front();
    --lane.idle;
    lock.unlock();
    guarded("a request of the control socket", work);
    work = nullptr;
    lock.lock();
    ++lane.idle;
  }
}

}  // namespace kestrowan::host
