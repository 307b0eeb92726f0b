#include "extension/FileProviderExtension.h"

#include <utility>

#include "bridge/CertificatePEM.h"
#include "extension/fpLog.h"
#include "items/DAVEnumerator.h"

namespace kestrowan {

namespace {

/// The client of a usable configuration, or null.
std::shared_ptr<WebDAVClient> makeClient() {
  try {
    auto config = FPBridge::loadConfig();
    auto pinnedDER = FPBridge::derFromPEM(config.certPEM);
    return WebDAVClient::make(std::move(config), std::move(pinnedDER));
  } catch (const NSError&) {
    fpLog().error("no WebDAV config in app group — host serve not up?");
    return nullptr;
  }
}

}  // namespace

FileProviderExtension::FileProviderExtension(NSFileProviderDomain domain)
    : domain_(std::move(domain)), client_(makeClient()) {}

void FileProviderExtension::invalidate() {}

std::shared_ptr<NSFileProviderEnumerator> FileProviderExtension::enumerator(
    const NSFileProviderItemIdentifier& forContainer, const NSFileProviderRequest&) {
  return std::make_shared<DAVEnumerator>(forContainer, client_);
}

}  // namespace kestrowan
