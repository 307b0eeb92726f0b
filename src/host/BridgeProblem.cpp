#include "host/BridgeProblem.h"

#include <string_view>

#include "bridge/FPBridge.h"
#include "host/BridgeAccess.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

namespace {

constexpr std::string_view kLineBreak = "\n  ";

std::string unreadable(const std::string& container, const NSError& error) {
  const auto file = escapedForDisplay(container + "/" + std::string(FPBridge::kConfigFileName));
  if (error.is(NSCocoaErrorDomain, NSCoderReadCorruptError) ||
      error.is(NSCocoaErrorDomain, NSCoderValueNotFoundError)) {
    return file +
           " is not a JSON object with \"port\" (a whole number), \"user\", \"pass\" and "
           "\"certPEM\" (texts)\n  restart the host application, so that it writes the file anew";
  }
  return file + ": " + error.localizedDescription() +
         "\n  check that the host application is running and may write there";
}

std::string onOneLine(std::string text) {
  for (auto at = text.find(kLineBreak); at != std::string::npos; at = text.find(kLineBreak, at)) {
    text.replace(at, kLineBreak.size(), "; ");
  }
  return text;
}

}  // namespace

std::optional<std::string> bridgeProblem(NSFileManager& files) {
  const std::string what = "not configured: ";
  const auto container = containerPath(files);
  if (!container) {
    return what +
           "there is no container directory\n"
           "  looked for $KESTROWAN_CONTAINER, else the directory " +
           std::string(FPBridge::kGroupIdentifier) +
           " in $XDG_DATA_HOME or ~/.local/share\n"
           "  start the host application, or name the directory with --container";
  }
  if (const auto refusal = bridgeRefusal(*container)) return what + *refusal;
  try {
    FPBridge::loadConfig();
    return std::nullopt;
  } catch (const NSError& error) {
    return what + unreadable(*container, error);
  }
}

replica::Status statusWithBridge(const replica::Replica& replica, NSFileManager& files) {
  auto status = replica.commands().status();
  if (!status.held) return status;
  if (auto problem = bridgeProblem(files)) status.held = onOneLine(*std::move(problem));
  return status;
}

}  // namespace kestrowan::host
