#include "cli/Bridge.h"

#include <memory>

#include "host/BridgeAccess.h"
#include "host/BridgeProblem.h"
#include "host/GuardedFileManager.h"
#include "host/Process.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan::cli {

namespace {

/// The platform's own file manager, which guards nothing.
const std::shared_ptr<NSFileManager>& systemFiles() {
  // Never destroyed: a background task may outlive the program's static objects.
  static const auto* files = new std::shared_ptr(NSFileManager::defaultManager());
  return *files;
}

}  // namespace

void useBridge() {
  host::protectMemory();
  NSFileManager::setDefaultManager(std::make_shared<host::GuardedFileManager>(systemFiles()));
}

std::optional<std::string> bridgeContainer() {
  return host::containerPath(*systemFiles());
}

std::optional<std::string> bridgeProblem() {
  return host::bridgeProblem(*systemFiles());
}

}  // namespace kestrowan::cli
