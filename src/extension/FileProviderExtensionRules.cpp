#include "extension/FileProviderExtension.h"
#include "items/FPItem.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSUUID.h"

namespace kestrowan {

namespace {

constexpr std::int64_t kOperationNotPermitted = 1;

}  // namespace

const NSError& FileProviderExtension::permDenied() {
  static const auto* error = new NSError(NSPOSIXErrorDomain, kOperationNotPermitted);
  return *error;
}

std::string FileProviderExtension::childPath(const NSFileProviderItemIdentifier& parent,
                                             std::string_view name) {
  std::string base = FPItem::path(parent);
  if (base == "/") base.clear();
  return WebDAVClient::normalize(base.append("/").append(name));
}

bool FileProviderExtension::validName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

NSURL FileProviderExtension::emptyTempFile() {
  const auto manager = NSFileManager::defaultManager();
  const NSURL file = manager->temporaryDirectory().appendingPathComponent(newUUIDString());
  manager->createFile(file, "");
  return file;
}

}  // namespace kestrowan
