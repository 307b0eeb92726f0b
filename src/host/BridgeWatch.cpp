#include "host/BridgeWatch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "bridge/FPBridge.h"
#include "host/BridgeAccess.h"
#include "mount/DescribedError.h"
#include "platform/base/Threads.h"

namespace kestrowan::host {

namespace {

using Clock = std::chrono::steady_clock;

/// A writer that never pauses does not keep its changes from being seen for longer.
constexpr std::chrono::seconds kLongestSettling{2};
constexpr std::uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                  IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF |
                                  IN_MOVE_SELF | IN_ONLYDIR;

std::string text(const timespec& time) {
  return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec) + " ";
}

}  // namespace

BridgeWatch::BridgeWatch(Container container, std::function<void()> changed)
    : BridgeWatch(std::move(container), std::move(changed), Times{}) {}

BridgeWatch::BridgeWatch(Container container, std::function<void()> changed, Times times)
    : container_(std::move(container)),
      changed_(std::move(changed)),
      times_(times),
      events_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      stop_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stop_) throw systemError(errno, "watching for the bridge file");
  watchContainer();
  known_ = signature();
  thread_ = startThread("the bridge watch", [this] { run(); });
}

BridgeWatch::~BridgeWatch() {
  const std::uint64_t one = 1;
  while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
}

void BridgeWatch::run() {
  for (bool stopping = false; !stopping;) {
    if (waitForEvent(times_.look, stopping)) settle(stopping);
    if (stopping) return;
    guarded("the bridge watch", [this] {
      // Before the look, so that what changes after it is an event.
      watchContainer();
      auto now = signature();
      if (now == known_) return;
      changed_();
      known_ = std::move(now);
    });
  }
}

/// Makes the watch that of the directory which is the container now.
void BridgeWatch::watchContainer() {
  if (!events_) return;
  const auto path = container_();
  const int watched = path ? ::inotify_add_watch(events_.get(), path->c_str(), kEvents) : -1;
  if (watched == watched_) return;
  if (watched_ >= 0) ::inotify_rm_watch(events_.get(), watched_);
  watched_ = watched;
}

/// Whether something happened within `limit`; drops the events, which only say when to look.
bool BridgeWatch::waitForEvent(std::chrono::milliseconds limit, bool& stopping) {
  std::array<pollfd, 2> awaited = {{{stop_.get(), POLLIN, 0}, {events_.get(), POLLIN, 0}}};
  const int count = ::poll(awaited.data(), awaited.size(), static_cast<int>(limit.count()));
  if (count <= 0) return false;
  if (awaited[0].revents != 0) {
    stopping = true;
    return false;
  }
  alignas(inotify_event) std::array<char, 4096> events;
  while (::read(events_.get(), events.data(), events.size()) > 0) {
  }
  return true;
}

void BridgeWatch::settle(bool& stopping) {
  const auto end = Clock::now() + kLongestSettling;
  while (Clock::now() < end && waitForEvent(times_.debounce, stopping)) {
  }
}

/// What tells one state of the container and the bridge file from another.
std::string BridgeWatch::signature() const {
  const auto container = container_();
  if (!container) return "no container";
  struct stat status;
  if (::stat(container->c_str(), &status) != 0) return "no container";
  std::string signature = *container + " " + std::to_string(status.st_dev) + " " +
                          std::to_string(status.st_ino) + " " + std::to_string(status.st_mode) +
                          " " + std::to_string(status.st_uid) + " ";
  // Which says also whether a part above the container can be trusted.
  if (const auto refusal = bridgeRefusal(*container)) signature += *refusal + " ";
  const std::string file = *container + "/" + std::string(FPBridge::kConfigFileName);
  if (::lstat(file.c_str(), &status) != 0) return signature + "no file";
  return signature + std::to_string(status.st_ino) + " " + std::to_string(status.st_size) + " " +
         std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + " " +
         text(status.st_mtim) + text(status.st_ctim);
}

}  // namespace kestrowan::host
