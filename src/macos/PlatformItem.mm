#include "macos/PlatformItem.h"

#include "macos/Convert.h"

#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

namespace kestrowan::macos {

NSFileProviderItemIdentifier PlatformItem::itemIdentifier() const {
  return coreString([item_.get() itemIdentifier]);
}

NSFileProviderItemIdentifier PlatformItem::parentItemIdentifier() const {
  return coreString([item_.get() parentItemIdentifier]);
}

std::string PlatformItem::filename() const {
  return coreString([item_.get() filename]);
}

std::optional<UTType> PlatformItem::contentType() const {
  if (![item_.get() respondsToSelector:@selector(contentType)]) return std::nullopt;
  ::UTType* type = [item_.get() contentType];
  if (!type) return std::nullopt;
  return UTType(coreString([type identifier]));
}

NSFileProviderItemCapabilities PlatformItem::capabilities() const {
  if (![item_.get() respondsToSelector:@selector(capabilities)]) return 0;
  return [item_.get() capabilities];
}

std::optional<std::int64_t> PlatformItem::documentSize() const {
  if (![item_.get() respondsToSelector:@selector(documentSize)]) return std::nullopt;
  NSNumber* size = [item_.get() documentSize];
  if (!size) return std::nullopt;
  return [size longLongValue];
}

std::optional<NSDate> PlatformItem::contentModificationDate() const {
  if (![item_.get() respondsToSelector:@selector(contentModificationDate)]) return std::nullopt;
  ::NSDate* date = [item_.get() contentModificationDate];
  if (!date) return std::nullopt;
  return NSDate{[date timeIntervalSince1970]};
}

NSFileProviderItemVersion PlatformItem::itemVersion() const {
  if (![item_.get() respondsToSelector:@selector(itemVersion)]) return {};
  return coreVersion([item_.get() itemVersion]);
}

}  // namespace kestrowan::macos
