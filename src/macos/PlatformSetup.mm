#include "macos/PlatformSetup.h"

#include <memory>
#include <mutex>

#include "macos/GroupContainer.h"
#include "macos/OsLogSink.h"

namespace kestrowan::macos {

void setUpPlatform() {
  static std::once_flag done;
  std::call_once(done, [] {
    LogSink::setShared(std::make_shared<OsLogSink>());
    NSFileManager::setDefaultManager(
        std::make_shared<GroupContainer>(NSFileManager::defaultManager()));
  });
}

}  // namespace kestrowan::macos
