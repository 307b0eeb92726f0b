#pragma once

#include <memory>

#include "platform/fileprovider/NSFileProviderEnumerator.h"

#import <FileProvider/FileProvider.h>

/// An enumerator of the module, as the platform sees it. Usable from every thread; a listing in
/// flight goes on after it is gone.
@interface DAVEnumerator : NSObject <NSFileProviderEnumerator> {
 @private
  std::shared_ptr<kestrowan::NSFileProviderEnumerator> core_;
}

- (instancetype)init __attribute__((unavailable));
/// `core` must not be null.
- (instancetype)initWithCore:(std::shared_ptr<kestrowan::NSFileProviderEnumerator>)core;

@end
