#include <unistd.h>

#include <cerrno>

#include "platform/foundation/Logger.h"

namespace kestrowan {

namespace {

/// Writes each message as one line to standard error, in one write so that lines of several
/// threads and processes do not mix. A failed write is dropped: there is nowhere to report it.
class StandardErrorLog : public LogSink {
 public:
  void error(std::string_view subsystem, std::string_view category, std::string_view format,
             std::span<const std::string_view> arguments) override {
    std::string line = "[";
    line.append(subsystem).append(":").append(category).append("] error: ");
    line += renderedMessage(format, arguments);
    line += '\n';
    std::string_view rest = line;
    while (!rest.empty()) {
      const auto written = ::write(STDERR_FILENO, rest.data(), rest.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return;
      rest.remove_prefix(static_cast<std::size_t>(written));
    }
  }
};

}  // namespace

std::shared_ptr<LogSink> LogSink::makePlatformSink() {
  return std::make_shared<StandardErrorLog>();
}

}  // namespace kestrowan
