#pragma once

#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace kestrowan {

/// Where log messages go. Called from every thread, possibly at once; must not throw.
class LogSink {
 public:
  virtual ~LogSink() = default;

  /// One message at error level: `format` is a literal in which each "%{public}s" stands for the
  /// next of `arguments`.
  virtual void error(std::string_view subsystem, std::string_view category, std::string_view format,
                     std::span<const std::string_view> arguments) = 0;

  /// Replaces the process's sink; null brings back the platform's own.
  static void setShared(std::shared_ptr<LogSink> sink);
  static std::shared_ptr<LogSink> shared();

 private:
  /// The sink of the system that the program runs on.
  static std::shared_ptr<LogSink> makePlatformSink();
};

/// A named source of log messages. Immutable; usable from every thread.
class Logger {
 public:
  Logger(std::string subsystem, std::string category)
      : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

  /// Logs `format`, a literal with one "%{public}s" for each of `arguments`.
  void error(std::string_view format, std::initializer_list<std::string_view> arguments = {}) const;

 private:
  std::string subsystem_;
  std::string category_;
};

/// `format` with each "%{public}s" replaced by the next argument, in which control characters are
/// escaped and bytes that are not valid UTF-8 are written as \xNN.
std::string renderedMessage(std::string_view format, std::span<const std::string_view> arguments);

/// `text` for a terminal or a log: control characters (C1 included), bidirectional controls and
/// bytes that are not valid UTF-8 escaped, everything else kept.
std::string escapedForDisplay(std::string_view text);

}  // namespace kestrowan
