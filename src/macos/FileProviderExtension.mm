#include "macos/FileProviderExtension.h"

#include <optional>
#include <utility>

#include "extension/FileProviderExtension.h"
#include "macos/Convert.h"
#include "macos/DAVEnumerator.h"
#include "macos/PlatformSetup.h"
#include "macos/ProgressMirror.h"
#include "platform/base/Fatal.h"

using kestrowan::macos::coreDomain;
using kestrowan::macos::coreItem;
using kestrowan::macos::coreString;
using kestrowan::macos::coreURL;
using kestrowan::macos::coreVersion;
using kestrowan::macos::Handler;
using kestrowan::macos::platformError;
using kestrowan::macos::platformItem;
using kestrowan::macos::platformURL;
using kestrowan::macos::ProgressMirror;
using kestrowan::macos::Retained;
using kestrowan::macos::setUpPlatform;

namespace {

using WriteBlock = void (^)(id<NSFileProviderItem>, NSFileProviderItemFields, BOOL, NSError*);

/// The module's completion of a creation or modification, which calls `block`.
kestrowan::WriteCompletion writeCompletion(WriteBlock block) {
  return [handler = Handler(block)](const kestrowan::NSFileProviderItemPtr& item,
                                    kestrowan::NSFileProviderItemFields remainingFields,
                                    bool shouldFetchContent,
                                    const std::optional<kestrowan::NSError>& error) {
    @autoreleasepool {
      handler(platformItem(item), static_cast<NSFileProviderItemFields>(remainingFields),
              shouldFetchContent ? YES : NO, platformError(error));
    }
  };
}

NSProgress* platformProgress(std::shared_ptr<const kestrowan::NSProgress> progress) {
  ProgressMirror mirror;
  mirror.follow(std::move(progress));
  return mirror.platformProgress();
}

}  // namespace

@implementation FileProviderExtension

- (instancetype)init {
  kestrowan::fatalError("a FileProviderExtension cannot be made without its domain");
}

- (instancetype)initWithDomain:(NSFileProviderDomain*)domain {
  setUpPlatform();
  return
      [self initWithDomain:domain
                      core:std::make_shared<kestrowan::FileProviderExtension>(coreDomain(domain))];
}

- (instancetype)initWithDomain:(NSFileProviderDomain*)domain
                          core:(std::shared_ptr<kestrowan::NSFileProviderReplicatedExtension>)core {
  self = [super init];
  if (self) {
    domain_ = Retained(domain);
    core_ = std::move(core);
  }
  return self;
}

- (void)invalidate {
  core_->invalidate();
}

- (id<NSFileProviderEnumerator>)enumeratorForContainerItemIdentifier:
                                    (NSFileProviderItemIdentifier)containerItemIdentifier
                                                             request:(NSFileProviderRequest*)request
                                                               error:(NSError**)error {
  try {
    auto enumerator = core_->enumerator(coreString(containerItemIdentifier), {});
    return [[[DAVEnumerator alloc] initWithCore:std::move(enumerator)] autorelease];
  } catch (const kestrowan::NSError& failure) {
    if (error) *error = platformError(failure);
    return nil;
  }
}

- (NSProgress*)itemForIdentifier:(NSFileProviderItemIdentifier)identifier
                         request:(NSFileProviderRequest*)request
               completionHandler:(void (^)(id<NSFileProviderItem>, NSError*))completionHandler {
  return platformProgress(core_->item(
      coreString(identifier), {},
      [handler = Handler(completionHandler)](const kestrowan::NSFileProviderItemPtr& item,
                                             const std::optional<kestrowan::NSError>& error) {
        @autoreleasepool {
          handler(platformItem(item), platformError(error));
        }
      }));
}

- (NSProgress*)fetchContentsForItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
                                          version:(NSFileProviderItemVersion*)requestedVersion
                                          request:(NSFileProviderRequest*)request
                                completionHandler:(void (^)(NSURL*, id<NSFileProviderItem>,
                                                            NSError*))completionHandler {
  std::optional<kestrowan::NSFileProviderItemVersion> version;
  if (requestedVersion) version = coreVersion(requestedVersion);
  const auto mirror = std::make_shared<ProgressMirror>();
  mirror->follow(core_->fetchContents(
      coreString(itemIdentifier), version, {},
      [mirror, handler = Handler(completionHandler)](
          const std::optional<kestrowan::NSURL>& file, const kestrowan::NSFileProviderItemPtr& item,
          const std::optional<kestrowan::NSError>& error) {
        @autoreleasepool {
          mirror->update();
          handler(platformURL(file), platformItem(item), platformError(error));
        }
      }));
  return mirror->platformProgress();
}

- (NSProgress*)createItemBasedOnTemplate:(id<NSFileProviderItem>)itemTemplate
                                  fields:(NSFileProviderItemFields)fields
                                contents:(NSURL*)url
                                 options:(NSFileProviderCreateItemOptions)options
                                 request:(NSFileProviderRequest*)request
                       completionHandler:(WriteBlock)completionHandler {
  return platformProgress(core_->createItem(coreItem(itemTemplate), fields, coreURL(url), options,
                                            {}, writeCompletion(completionHandler)));
}

- (NSProgress*)modifyItem:(id<NSFileProviderItem>)item
              baseVersion:(NSFileProviderItemVersion*)version
            changedFields:(NSFileProviderItemFields)changedFields
                 contents:(NSURL*)newContents
                  options:(NSFileProviderModifyItemOptions)options
                  request:(NSFileProviderRequest*)request
        completionHandler:(WriteBlock)completionHandler {
  return platformProgress(core_->modifyItem(coreItem(item), coreVersion(version), changedFields,
                                            coreURL(newContents), options, {},
                                            writeCompletion(completionHandler)));
}

- (NSProgress*)deleteItemWithIdentifier:(NSFileProviderItemIdentifier)identifier
                            baseVersion:(NSFileProviderItemVersion*)version
                                options:(NSFileProviderDeleteItemOptions)options
                                request:(NSFileProviderRequest*)request
                      completionHandler:(void (^)(NSError*))completionHandler {
  return platformProgress(core_->deleteItem(
      coreString(identifier), coreVersion(version), options, {},
      [handler = Handler(completionHandler)](const std::optional<kestrowan::NSError>& error) {
        @autoreleasepool {
          handler(platformError(error));
        }
      }));
}

@end
