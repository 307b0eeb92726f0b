#include "host/BridgeProblem.h"

#include <string_view>

#include "bridge/FPBridge.h"
#include "host/BridgeAccess.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/Logger.h"
#include "platform/linux/ContainerPath.h"

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

/// Where a container would be, and why there.
std::string lookedAt() {
  const auto path = kestrowan::containerPath(FPBridge::kGroupIdentifier);
  if (path.empty()) {
    return "looked nowhere: none of $KESTROWAN_CONTAINER, $XDG_DATA_HOME and $HOME is set";
  }
  const auto text = "looked at " + escapedForDisplay(path);
  return text + (path == standardContainerPath(FPBridge::kGroupIdentifier)
                     ? "; neither --container nor $KESTROWAN_CONTAINER names another"
                     : ", which --container or $KESTROWAN_CONTAINER names");
}

/// "on port 8443"; "there" when the bridge file does not tell.
std::string onPort() {
  try {
    return "on port " + std::to_string(FPBridge::loadConfig().port);
  } catch (const NSError&) {
    return "there";
  }
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
    return what + "there is no container directory\n  " + lookedAt() +
           "\n  start the host application, or name the directory with --container";
  }
  if (const auto refusal = bridgeRefusal(*container)) return what + *refusal;
  try {
    FPBridge::loadConfig();
    return std::nullopt;
  } catch (const NSError& error) {
    return what + unreadable(*container, error);
  }
}

std::string distrustText(const NSError& error) {
  if (error.is(NSURLErrorDomain, NSURLErrorCancelled)) {
    return "another program answers " + onPort() +
           ": its certificate is not the one in the bridge file";
  }
  const auto notAuthenticated =
      static_cast<std::int64_t>(NSFileProviderErrorCode::notAuthenticated);
  if (error.is(NSFileProviderErrorDomain, notAuthenticated)) {
    return "the server " + onPort() + " refuses the user and password in the bridge file";
  }
  return error.localizedDescription();
}

replica::Status statusWithBridge(const replica::Replica& replica, NSFileManager& files) {
  auto status = replica.commands().status();
  if (!status.held) return status;
  if (auto problem = bridgeProblem(files)) {
    status.held = onOneLine(*std::move(problem));
  } else if (status.heldBy) {
    status.held = distrustText(*status.heldBy);
  }
  return status;
}

}  // namespace kestrowan::host
