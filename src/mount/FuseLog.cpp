#include "mount/FuseLog.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "mount/Fuse.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::mount {

namespace {

struct LatestMessage {
  std::mutex mutex;
  std::string text;
};

LatestMessage& latestMessage() {
  // Never destroyed: libfuse's threads may still report while the program's static objects go.
  static auto* latest = new LatestMessage;
  return *latest;
}

void takeMessage(fuse_log_level level, const char* format, std::va_list arguments) noexcept {
  if (level > FUSE_LOG_ERR) return;
  std::array<char, 512> text = {};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  try {
    std::string message = text.data();
    while (!message.empty() && message.back() == '\n') message.pop_back();
    static const Logger log("com.kestrowan.app.FileProvider", "mount");
    log.error("%{public}s", {message});
    std::lock_guard lock(latestMessage().mutex);
    latestMessage().text = std::move(message);
  } catch (...) {
    // A message that cannot be kept is lost.
  }
}

}  // namespace

void installFuseLog() {
  fuse_set_log_func(takeMessage);
}

std::string takeFuseMessage() {
  std::lock_guard lock(latestMessage().mutex);
  return std::exchange(latestMessage().text, {});
}

}  // namespace kestrowan::mount
