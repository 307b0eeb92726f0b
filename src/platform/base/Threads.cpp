#include "platform/base/Threads.h"

#include <system_error>

#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"

namespace kestrowan {

void logEscaped(std::string_view place) noexcept {
  const auto error = caughtError();
  try {
    static const Logger log("com.kestrowan.app.FileProvider", "thread");
    log.error("an error was left unhandled in %{public}s: %{public}s",
              {place, error.localizedDescription()});
  } catch (...) {
    // There is no memory for the line.
  }
}

std::thread startThread(const char* place, std::function<void()> body) {
  try {
    return std::thread([place, body = std::move(body)] { guarded(place, body); });
  } catch (const std::system_error&) {
    throw caughtError();
  }
}

}  // namespace kestrowan
