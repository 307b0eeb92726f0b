#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/foundation/Logger.h"

namespace kestrowan::test {

/// Takes every log line of the process while it lives, as "subsystem:category message".
class RecordingLog {
 public:
  RecordingLog() { LogSink::setShared(sink_); }
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;
  ~RecordingLog() { LogSink::setShared(nullptr); }

  std::vector<std::string> lines() const {
    std::lock_guard lock(sink_->mutex);
    return sink_->lines;
  }

  /// The form of each of these lines, by which limits tell their kinds apart.
  std::vector<std::string> forms() const {
    std::lock_guard lock(sink_->mutex);
    return sink_->forms;
  }

 private:
  struct Sink : LogSink {
    void error(std::string_view subsystem, std::string_view category, std::string_view format,
               std::span<const std::string_view> arguments) override {
      std::lock_guard lock(mutex);
      lines.push_back(std::string(subsystem) + ":" + std::string(category) + " " +
                      renderedMessage(format, arguments));
      forms.emplace_back(format);
    }
    std::mutex mutex;
    std::vector<std::string> lines;
    std::vector<std::string> forms;
  };

  const std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
};

}  // namespace kestrowan::test
