#include "macos/OsLogSink.h"

#include <os/log.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace kestrowan::macos {

namespace {

/// The log of that name; each is made once and lives as long as the process.
os_log_t namedLog(std::string_view subsystem, std::string_view category) {
  using Name = std::pair<std::string, std::string>;
  static std::mutex mutex;
  static auto* logs = new std::map<Name, os_log_t>;
  Name name(subsystem, category);
  std::lock_guard lock(mutex);
  auto& log = (*logs)[name];
  if (!log) log = os_log_create(name.first.c_str(), name.second.c_str());
  return log;
}

}  // namespace

// One format stands once, as the literal that it is compared with and that is logged.
#define KFP_LOG_PLAIN(literal)                    \
  if (format == (literal) && arguments.empty()) { \
    os_log_error(log, literal);                   \
    return;                                       \
  }
#define KFP_LOG_PATH_AND_REASON(literal)                      \
  if (format == (literal) && arguments.size() == 2) {         \
    const std::string path(arguments[0]);                     \
    const std::string reason(arguments[1]);                   \
    os_log_error(log, literal, path.c_str(), reason.c_str()); \
    return;                                                   \
  }

void OsLogSink::error(std::string_view subsystem, std::string_view category,
                      std::string_view format, std::span<const std::string_view> arguments) {
  const os_log_t log = namedLog(subsystem, category);
  KFP_LOG_PLAIN("no WebDAV config in app group — host serve not up?")
  KFP_LOG_PLAIN("cert pin mismatch — refusing loopback connection")
  KFP_LOG_PATH_AND_REASON("enumerate %{public}s failed: %{public}s")
  KFP_LOG_PATH_AND_REASON("fetch %{public}s failed: %{public}s")
  KFP_LOG_PATH_AND_REASON("createItem %{public}s failed: %{public}s")
  KFP_LOG_PATH_AND_REASON("modifyItem %{public}s failed: %{public}s")
  KFP_LOG_PATH_AND_REASON("deleteItem %{public}s failed: %{public}s")
  os_log_error(log, "%{public}s", renderedMessage(format, arguments).c_str());
}

#undef KFP_LOG_PLAIN
#undef KFP_LOG_PATH_AND_REASON

}  // namespace kestrowan::macos
