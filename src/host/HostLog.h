#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/foundation/Logger.h"

namespace kestrowan::host {

/// Writes "kestrowan: " and `text`, control characters escaped, as one line to standard error.
/// From every thread; a line that cannot be written at once is dropped.
void hostLog(std::string_view text);

/// Puts date and time (local) before every line from now on, for a log that nothing else dates.
void dateHostLog();

/// Passes messages on, but of each kind only so many a minute, so that an error that repeats does
/// not fill a disk. Says afterwards how many were left out. Usable from every thread.
class LimitedLog : public LogSink {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  static constexpr unsigned kMostAMinute = 20;

  LimitedLog(std::shared_ptr<LogSink> inner, Clock clock);

  void error(std::string_view subsystem, std::string_view category, std::string_view format,
             std::span<const std::string_view> arguments) override;

 private:
  struct Minute {
    std::chrono::steady_clock::time_point start;
    unsigned count = 0;
  };

  const std::shared_ptr<LogSink> inner_;
  const Clock clock_;
  std::mutex mutex_;
  std::map<std::string, Minute, std::less<>> kinds_;  // by the format
};

/// The sink of a host's process: `hostLog`, limited, and without what the extension itself logs
/// unless that is wanted, which is then told from the rest by "extension: ".
std::shared_ptr<LogSink> hostSink(bool extensionLog);

}  // namespace kestrowan::host
