#pragma once

#include <memory>

#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"

#import <FileProvider/FileProvider.h>

#include "macos/Retained.h"

/// The principal class: the platform makes one instance for each domain and may call it from any
/// thread. Converts and passes on, nothing else; each completion handler is called exactly once.
@interface FileProviderExtension : NSObject <NSFileProviderReplicatedExtension> {
 @private
  kestrowan::macos::Retained<NSFileProviderDomain*> domain_;
  std::shared_ptr<kestrowan::NSFileProviderReplicatedExtension> core_;
}

- (instancetype)init __attribute__((unavailable));
/// Reads the bridge file once; never fails.
- (instancetype)initWithDomain:(NSFileProviderDomain*)domain;
/// In front of another provider; `core` must not be null.
- (instancetype)initWithDomain:(NSFileProviderDomain*)domain
                          core:(std::shared_ptr<kestrowan::NSFileProviderReplicatedExtension>)core;

@end
