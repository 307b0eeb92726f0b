#include <mutex>

#include "double/Double.h"

NSFileProviderItemIdentifier const NSFileProviderRootContainerItemIdentifier =
    @"NSFileProviderRootContainerItemIdentifier";
NSFileProviderItemIdentifier const NSFileProviderWorkingSetContainerItemIdentifier =
    @"NSFileProviderWorkingSetContainerItemIdentifier";
NSFileProviderItemIdentifier const NSFileProviderTrashContainerItemIdentifier =
    @"NSFileProviderTrashContainerItemIdentifier";
NSString* const NSFileProviderErrorDomain = @"NSFileProviderErrorDomain";

@implementation NSFileProviderDomain

- (instancetype)initWithIdentifier:(NSString*)identifier displayName:(NSString*)displayName {
  self = [super init];
  if (self) {
    identifier_ = [identifier copy];
    displayName_ = [displayName copy];
  }
  return self;
}

- (void)dealloc {
  [identifier_ release];
  [displayName_ release];
  [super dealloc];
}

- (NSString*)identifier {
  return identifier_;
}

- (NSString*)displayName {
  return displayName_;
}

@end

@implementation NSFileProviderItemVersion

- (instancetype)initWithContentVersion:(NSData*)contentVersion
                       metadataVersion:(NSData*)metadataVersion {
  self = [super init];
  if (self) {
    contentVersion_ = [contentVersion copy];
    metadataVersion_ = [metadataVersion copy];
  }
  return self;
}

- (void)dealloc {
  [contentVersion_ release];
  [metadataVersion_ release];
  [super dealloc];
}

- (NSData*)contentVersion {
  return contentVersion_;
}

- (NSData*)metadataVersion {
  return metadataVersion_;
}

@end

@implementation NSFileProviderRequest
@end

namespace {

std::mutex containerMutex;
std::string containerPath;
std::vector<std::string> groups;
std::string temporaryPath = "/tmp";

}  // namespace

namespace kestrowan::test {

void setGroupContainer(const std::string& path) {
  std::lock_guard lock(containerMutex);
  containerPath = path;
  groups.clear();
}

void setTemporaryDirectory(const std::string& path) {
  std::lock_guard lock(containerMutex);
  temporaryPath = path;
}

std::vector<std::string> askedGroups() {
  std::lock_guard lock(containerMutex);
  return groups;
}

}  // namespace kestrowan::test

@implementation NSFileManager (ApplicationGroups)

- (NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)groupIdentifier {
  std::lock_guard lock(containerMutex);
  groups.emplace_back([groupIdentifier UTF8String]);
  if (containerPath.empty()) return nil;
  return [NSURL fileURLWithPath:[NSString stringWithUTF8String:containerPath.c_str()]
                    isDirectory:YES];
}

@end

// Instead of GNUstep's own, which a running test could not direct.
NSString* NSTemporaryDirectory(void) {
  std::lock_guard lock(containerMutex);
  return [NSString stringWithUTF8String:(temporaryPath + "/").c_str()];
}
