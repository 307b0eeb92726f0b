#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Calls.h"

#import <FileProvider/FileProvider.h>

/// A template that says only what every item must.
@interface PlainTemplate : NSObject <NSFileProviderItem> {
 @private
  NSString* identifier_;
  NSString* parent_;
  NSString* filename_;
}
- (instancetype)initWithIdentifier:(NSString*)identifier
                            parent:(NSString*)parent
                          filename:(NSString*)filename;
@end

/// A template that says everything.
@interface FullTemplate : PlainTemplate {
 @private
  UTType* type_;
}
/// `type` may be nil.
- (instancetype)initWithIdentifier:(NSString*)identifier
                            parent:(NSString*)parent
                          filename:(NSString*)filename
                              type:(UTType*)type;
@end

namespace kestrowan::test {

/// How a listing ended, and what it brought before.
struct Listing {
  std::vector<std::vector<Retained<id<NSFileProviderItem>>>> batches;
  bool hasNextPage = false;
  Retained<::NSData*> nextPage;
  Retained<::NSError*> error;
};

struct Changes {
  std::vector<Retained<id<NSFileProviderItem>>> updated;
  std::vector<std::string> deleted;
  std::optional<std::string> anchor;
  bool moreComing = false;
  Retained<::NSError*> error;
};

using ListingCalls = std::shared_ptr<Calls<Listing>>;
using ChangesCalls = std::shared_ptr<Calls<Changes>>;

}  // namespace kestrowan::test

/// Records one listing or one report of changes, whichever it is used for.
@interface TestObserver
    : NSObject <NSFileProviderEnumerationObserver, NSFileProviderChangeObserver> {
 @private
  kestrowan::test::ListingCalls listings_;
  kestrowan::test::ChangesCalls changes_;
  kestrowan::test::Listing listing_;
  kestrowan::test::Changes change_;
}
- (instancetype)initWithListings:(kestrowan::test::ListingCalls)listings;
- (instancetype)initWithChanges:(kestrowan::test::ChangesCalls)changes;
@end
