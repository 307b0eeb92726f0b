#include "macos/FPItem.h"

#include <utility>

#include "items/FPItem.h"
#include "macos/Convert.h"
#include "platform/base/Fatal.h"
#include "platform/foundation/NSString.h"

#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

using kestrowan::macos::platformString;
using kestrowan::macos::platformVersion;

@implementation FPItem

- (instancetype)init {
  kestrowan::fatalError("an FPItem cannot be made without its values");
}

- (instancetype)initWithCore:(kestrowan::NSFileProviderItemPtr)core {
  self = [super init];
  if (self) core_ = std::move(core);
  return self;
}

- (NSFileProviderItemIdentifier)itemIdentifier {
  return platformString(core_->itemIdentifier());
}

- (NSFileProviderItemIdentifier)parentItemIdentifier {
  return platformString(core_->parentItemIdentifier());
}

- (NSString*)filename {
  return platformString(core_->filename());
}

/// The module says what is a folder; the type of a file is what this system takes its name for.
- (UTType*)contentType {
  if (core_->contentType() == kestrowan::UTType::folder()) return UTTypeFolder;
  const auto path = kestrowan::FPItem::path(core_->itemIdentifier());
  const auto extension = kestrowan::pathExtension(path);
  if (extension.empty()) return UTTypeData;
  UTType* type = [UTType typeWithFilenameExtension:platformString(extension)
                                  conformingToType:UTTypeData];
  return type ? type : UTTypeData;
}

- (NSFileProviderItemCapabilities)capabilities {
  return static_cast<NSFileProviderItemCapabilities>(core_->capabilities());
}

- (NSNumber*)documentSize {
  const auto size = core_->documentSize();
  return size ? [NSNumber numberWithLongLong:*size] : nil;
}

- (NSDate*)contentModificationDate {
  const auto date = core_->contentModificationDate();
  return date ? [NSDate dateWithTimeIntervalSince1970:date->timeIntervalSince1970] : nil;
}

- (NSFileProviderItemVersion*)itemVersion {
  return platformVersion(core_->itemVersion());
}

@end
