#include <os/log.h>

#include <cstdarg>
#include <mutex>
#include <utility>

#include "double/Double.h"

struct os_log_s {
  std::string subsystem;
  std::string category;
};

namespace {

std::mutex messagesMutex;
std::vector<kestrowan::test::LogMessage> messages;

std::size_t argumentCount(const std::string& format) {
  std::size_t count = 0;
  for (auto at = format.find('%'); at != std::string::npos; at = format.find('%', at + 1)) ++count;
  return count;
}

}  // namespace

os_log_t os_log_create(const char* subsystem, const char* category) {
  return new os_log_s{subsystem, category};
}

void os_log_error_literal(os_log_t log, const char* format, ...) {
  kestrowan::test::LogMessage message{log->subsystem, log->category, format, {}};
  va_list arguments;
  va_start(arguments, format);
  for (auto left = argumentCount(message.format); left > 0; --left) {
    message.arguments.emplace_back(va_arg(arguments, const char*));
  }
  va_end(arguments);
  std::lock_guard lock(messagesMutex);
  messages.push_back(std::move(message));
}

namespace kestrowan::test {

std::vector<LogMessage> takeLogMessages() {
  std::lock_guard lock(messagesMutex);
  return std::exchange(messages, {});
}

}  // namespace kestrowan::test
