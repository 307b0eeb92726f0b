#include "TestObjects.h"

#include <utility>

#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

using kestrowan::test::ChangesCalls;
using kestrowan::test::ListingCalls;
using kestrowan::test::Retained;

@implementation PlainTemplate

- (instancetype)initWithIdentifier:(NSString*)identifier
                            parent:(NSString*)parent
                          filename:(NSString*)filename {
  self = [super init];
  if (self) {
    identifier_ = [identifier copy];
    parent_ = [parent copy];
    filename_ = [filename copy];
  }
  return self;
}

- (void)dealloc {
  [identifier_ release];
  [parent_ release];
  [filename_ release];
  [super dealloc];
}

- (NSString*)itemIdentifier {
  return identifier_;
}

- (NSString*)parentItemIdentifier {
  return parent_;
}

- (NSString*)filename {
  return filename_;
}

@end

@implementation FullTemplate

- (instancetype)initWithIdentifier:(NSString*)identifier
                            parent:(NSString*)parent
                          filename:(NSString*)filename
                              type:(UTType*)type {
  self = [super initWithIdentifier:identifier parent:parent filename:filename];
  if (self) type_ = [type retain];
  return self;
}

- (void)dealloc {
  [type_ release];
  [super dealloc];
}

- (UTType*)contentType {
  return type_;
}

- (NSFileProviderItemCapabilities)capabilities {
  return 43;
}

- (NSNumber*)documentSize {
  return [NSNumber numberWithLongLong:5000000000];
}

- (NSDate*)contentModificationDate {
  return [NSDate dateWithTimeIntervalSince1970:1700000000.5];
}

- (NSFileProviderItemVersion*)itemVersion {
  return [[[NSFileProviderItemVersion alloc]
      initWithContentVersion:[@"content" dataUsingEncoding:NSUTF8StringEncoding]
             metadataVersion:[@"metadata" dataUsingEncoding:NSUTF8StringEncoding]] autorelease];
}

@end

@implementation TestObserver

- (instancetype)initWithListings:(ListingCalls)listings {
  self = [super init];
  if (self) listings_ = std::move(listings);
  return self;
}

- (instancetype)initWithChanges:(ChangesCalls)changes {
  self = [super init];
  if (self) changes_ = std::move(changes);
  return self;
}

- (void)didEnumerateItems:(NSArray*)updatedItems {
  auto& batch = listing_.batches.emplace_back();
  for (id item in updatedItems) batch.emplace_back(item);
}

- (void)finishEnumeratingUpToPage:(NSFileProviderPage)nextPage {
  listing_.hasNextPage = nextPage != nil;
  listing_.nextPage = Retained<NSData*>(nextPage);
  listings_->add(std::exchange(listing_, {}));
}

- (void)didUpdateItems:(NSArray*)updatedItems {
  for (id item in updatedItems) change_.updated.emplace_back(item);
}

- (void)didDeleteItemsWithIdentifiers:(NSArray*)deletedItemIdentifiers {
  for (NSString* identifier in deletedItemIdentifiers) {
    change_.deleted.emplace_back([identifier UTF8String]);
  }
}

- (void)finishEnumeratingChangesUpToSyncAnchor:(NSFileProviderSyncAnchor)anchor
                                    moreComing:(BOOL)moreComing {
  change_.anchor = std::string(static_cast<const char*>([anchor bytes]), [anchor length]);
  change_.moreComing = moreComing;
  changes_->add(std::exchange(change_, {}));
}

- (void)finishEnumeratingWithError:(NSError*)error {
  if (listings_) {
    listing_.error = Retained<NSError*>(error);
    listings_->add(std::exchange(listing_, {}));
  } else {
    change_.error = Retained<NSError*>(error);
    changes_->add(std::exchange(change_, {}));
  }
}

@end
