#pragma once

#include "platform/fileprovider/NSFileProviderItem.h"

#import <FileProvider/FileProvider.h>

/// One item of the module, as the platform sees it. Immutable; usable from every thread.
@interface FPItem : NSObject <NSFileProviderItem> {
 @private
  kestrowan::NSFileProviderItemPtr core_;
}

- (instancetype)init __attribute__((unavailable));
/// `core` must not be null.
- (instancetype)initWithCore:(kestrowan::NSFileProviderItemPtr)core;

@end
