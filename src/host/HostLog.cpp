#include "host/HostLog.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <utility>

namespace kestrowan::host {

namespace {

std::atomic<bool> isDated = false;

/// "2026-01-31 12:00:00 ".
std::string date() {
  const time_t now = std::time(nullptr);
  struct tm parts;
  std::array<char, 32> text;
  if (::localtime_r(&now, &parts) == nullptr ||
      std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S ", &parts) == 0) {
    return std::to_string(now) + " ";
  }
  return text.data();
}

bool isExtensions(std::string_view category) {
  return category == "ext";
}

/// Writes messages as the host writes its own.
class HostSink : public LogSink {
 public:
  void error(std::string_view, std::string_view category, std::string_view format,
             std::span<const std::string_view> arguments) override {
    hostLog((isExtensions(category) ? "extension: " : "") + renderedMessage(format, arguments));
  }
};

/// Drops what the extension logs, and passes everything else on.
class WithoutExtensionLog : public LogSink {
 public:
  explicit WithoutExtensionLog(std::shared_ptr<LogSink> inner) : inner_(std::move(inner)) {}

  void error(std::string_view subsystem, std::string_view category, std::string_view format,
             std::span<const std::string_view> arguments) override {
    if (!isExtensions(category)) inner_->error(subsystem, category, format, arguments);
  }

 private:
  const std::shared_ptr<LogSink> inner_;
};

}  // namespace

void hostLog(std::string_view text) {
  const auto line = (isDated ? date() : "") + "kestrowan: " + escapedForDisplay(text) + "\n";
  std::string_view rest = line;
  static std::mutex writing;
  std::lock_guard lock(writing);
  while (!rest.empty()) {
    // A terminal that was halted, or a reader that reads no more, must not halt the mount.
    pollfd room{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&room, 1, 0) != 1) return;
    const auto written = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

void dateHostLog() {
  isDated = true;
}

LimitedLog::LimitedLog(std::shared_ptr<LogSink> inner, Clock clock)
    : inner_(std::move(inner)), clock_(std::move(clock)) {}

void LimitedLog::error(std::string_view subsystem, std::string_view category,
                       std::string_view format, std::span<const std::string_view> arguments) {
  unsigned leftOut = 0;
  {
    std::lock_guard lock(mutex_);
    const auto now = clock_();
    auto found = kinds_.find(format);
    if (found == kinds_.end()) found = kinds_.emplace(format, Minute{now, 0}).first;
    auto& minute = found->second;
    if (now - minute.start >= std::chrono::minutes(1)) {
      if (minute.count > kMostAMinute) leftOut = minute.count - kMostAMinute;
      minute = {now, 0};
    }
    if (++minute.count > kMostAMinute) return;
  }
  if (leftOut > 0) {
    const auto number = std::to_string(leftOut);
    const std::array<std::string_view, 2> values = {number, format};
    inner_->error(subsystem, category, "left out %{public}s more of: %{public}s", values);
  }
  inner_->error(subsystem, category, format, arguments);
}

std::shared_ptr<LogSink> hostSink(bool extensionLog) {
  std::shared_ptr<LogSink> sink = std::make_shared<LimitedLog>(
      std::make_shared<HostSink>(), [] { return std::chrono::steady_clock::now(); });
  if (extensionLog) return sink;
  return std::make_shared<WithoutExtensionLog>(std::move(sink));
}

}  // namespace kestrowan::host
