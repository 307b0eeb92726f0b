#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// Watches for the bridge file while it lives: notices when it appears, changes or goes, the
/// container's own coming, going and permissions included. Events of the file system are waited for
/// where there are some; besides, it looks every few seconds, so that nothing is missed.
class BridgeWatch {
 public:
  /// Gives the container's path, or nothing when there is none.
  using Container = std::function<std::optional<std::string>()>;

  struct Times {
    /// How long nothing must happen before a change is reported.
    std::chrono::milliseconds debounce{200};
    /// How often it looks without being told.
    std::chrono::milliseconds look{5000};
  };

  /// `container` and `changed` are called on the watch's own thread. The state of things at
  /// construction is taken as known. Throws `NSError` when the system has no descriptor left.
  BridgeWatch(Container container, std::function<void()> changed, Times times);
  BridgeWatch(Container container, std::function<void()> changed);
  BridgeWatch(const BridgeWatch&) = delete;
  BridgeWatch& operator=(const BridgeWatch&) = delete;
  /// Waits for a call that is running.
  ~BridgeWatch();

 private:
  void run();
  void watchContainer();
  bool waitForEvent(std::chrono::milliseconds limit, bool& stopping);
  void settle(bool& stopping);
  std::string signature() const;

  const Container container_;
  const std::function<void()> changed_;
  const Times times_;
  UniqueFd events_;
  UniqueFd stop_;
  int watched_ = -1;
  std::string known_;
  std::thread thread_;
};

}  // namespace kestrowan::host
