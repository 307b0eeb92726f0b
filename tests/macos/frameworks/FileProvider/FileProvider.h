#pragma once

#import <Foundation/Foundation.h>

/// Declarations of the file provider framework, as far as the shell uses it, written from its
/// public documentation so that the shell compiles where the framework itself does not exist.

@class UTType;
@class NSFileProviderDomain, NSFileProviderItemVersion, NSFileProviderRequest;

#pragma clang assume_nonnull begin

typedef NSString* NSFileProviderItemIdentifier;
typedef NSString* NSFileProviderDomainIdentifier;
typedef NSData* NSFileProviderPage;
typedef NSData* NSFileProviderSyncAnchor;

#ifdef __cplusplus
extern "C" {
#endif
extern NSFileProviderItemIdentifier const NSFileProviderRootContainerItemIdentifier;
extern NSFileProviderItemIdentifier const NSFileProviderWorkingSetContainerItemIdentifier;
extern NSFileProviderItemIdentifier const NSFileProviderTrashContainerItemIdentifier;
extern NSString* const NSFileProviderErrorDomain;
#ifdef __cplusplus
}
#endif

typedef NSUInteger NSFileProviderItemCapabilities;
typedef NSUInteger NSFileProviderItemFields;
typedef NSUInteger NSFileProviderCreateItemOptions;
typedef NSUInteger NSFileProviderModifyItemOptions;
typedef NSUInteger NSFileProviderDeleteItemOptions;

@interface NSFileProviderDomain : NSObject {
 @private
  NSString* identifier_;
  NSString* displayName_;
}
- (instancetype)initWithIdentifier:(NSFileProviderDomainIdentifier)identifier
                       displayName:(NSString*)displayName;
- (NSFileProviderDomainIdentifier)identifier;
- (NSString*)displayName;
@end

@interface NSFileProviderItemVersion : NSObject {
 @private
  NSData* contentVersion_;
  NSData* metadataVersion_;
}
- (instancetype)initWithContentVersion:(NSData*)contentVersion
                       metadataVersion:(NSData*)metadataVersion;
- (NSData*)contentVersion;
- (NSData*)metadataVersion;
@end

@interface NSFileProviderRequest : NSObject
@end

@protocol NSFileProviderItem <NSObject>
- (NSFileProviderItemIdentifier)itemIdentifier;
- (NSFileProviderItemIdentifier)parentItemIdentifier;
- (NSString*)filename;
@optional
- (UTType*)contentType;
- (NSFileProviderItemCapabilities)capabilities;
- (nullable NSNumber*)documentSize;
- (nullable NSDate*)contentModificationDate;
- (NSFileProviderItemVersion*)itemVersion;
@end

@protocol NSFileProviderEnumerationObserver <NSObject>
- (void)didEnumerateItems:(NSArray*)updatedItems;
- (void)finishEnumeratingUpToPage:(nullable NSFileProviderPage)nextPage;
- (void)finishEnumeratingWithError:(NSError*)error;
@optional
- (NSInteger)suggestedPageSize;
@end

@protocol NSFileProviderChangeObserver <NSObject>
- (void)didUpdateItems:(NSArray*)updatedItems;
- (void)didDeleteItemsWithIdentifiers:(NSArray*)deletedItemIdentifiers;
- (void)finishEnumeratingChangesUpToSyncAnchor:(NSFileProviderSyncAnchor)anchor
                                    moreComing:(BOOL)moreComing;
- (void)finishEnumeratingWithError:(NSError*)error;
@optional
- (NSInteger)suggestedBatchSize;
@end

@protocol NSFileProviderEnumerator <NSObject>
- (void)invalidate;
- (void)enumerateItemsForObserver:(id<NSFileProviderEnumerationObserver>)observer
                   startingAtPage:(NSFileProviderPage)page;
@optional
- (void)enumerateChangesForObserver:(id<NSFileProviderChangeObserver>)observer
                     fromSyncAnchor:(NSFileProviderSyncAnchor)syncAnchor;
- (void)currentSyncAnchorWithCompletionHandler:
    (void (^)(NSFileProviderSyncAnchor _Nullable currentAnchor))completionHandler;
@end

@protocol NSFileProviderEnumerating <NSObject>
- (nullable id<NSFileProviderEnumerator>)
    enumeratorForContainerItemIdentifier:(NSFileProviderItemIdentifier)containerItemIdentifier
                                 request:(NSFileProviderRequest*)request
                                   error:(NSError* _Nullable* _Nullable)error;
@end

@protocol NSFileProviderReplicatedExtension <NSFileProviderEnumerating>
- (instancetype)initWithDomain:(NSFileProviderDomain*)domain;
- (void)invalidate;
- (NSProgress*)itemForIdentifier:(NSFileProviderItemIdentifier)identifier
                         request:(NSFileProviderRequest*)request
               completionHandler:(void (^)(id<NSFileProviderItem> _Nullable item,
                                           NSError* _Nullable error))completionHandler;
- (NSProgress*)
    fetchContentsForItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
                               version:(nullable NSFileProviderItemVersion*)requestedVersion
                               request:(NSFileProviderRequest*)request
                     completionHandler:(void (^)(NSURL* _Nullable fileContents,
                                                 id<NSFileProviderItem> _Nullable item,
                                                 NSError* _Nullable error))completionHandler;
- (NSProgress*)createItemBasedOnTemplate:(id<NSFileProviderItem>)itemTemplate
                                  fields:(NSFileProviderItemFields)fields
                                contents:(nullable NSURL*)url
                                 options:(NSFileProviderCreateItemOptions)options
                                 request:(NSFileProviderRequest*)request
                       completionHandler:(void (^)(id<NSFileProviderItem> _Nullable createdItem,
                                                   NSFileProviderItemFields stillPendingFields,
                                                   BOOL shouldFetchContent,
                                                   NSError* _Nullable error))completionHandler;
- (NSProgress*)modifyItem:(id<NSFileProviderItem>)item
              baseVersion:(NSFileProviderItemVersion*)version
            changedFields:(NSFileProviderItemFields)changedFields
                 contents:(nullable NSURL*)newContents
                  options:(NSFileProviderModifyItemOptions)options
                  request:(NSFileProviderRequest*)request
        completionHandler:(void (^)(id<NSFileProviderItem> _Nullable item,
                                    NSFileProviderItemFields stillPendingFields,
                                    BOOL shouldFetchContent,
                                    NSError* _Nullable error))completionHandler;
- (NSProgress*)deleteItemWithIdentifier:(NSFileProviderItemIdentifier)identifier
                            baseVersion:(NSFileProviderItemVersion*)version
                                options:(NSFileProviderDeleteItemOptions)options
                                request:(NSFileProviderRequest*)request
                      completionHandler:(void (^)(NSError* _Nullable error))completionHandler;
@optional
- (void)importDidFinishWithCompletionHandler:(void (^)(void))completionHandler;
- (void)materializedItemsDidChangeWithCompletionHandler:(void (^)(void))completionHandler;
- (void)pendingItemsDidChangeWithCompletionHandler:(void (^)(void))completionHandler;
@end

@interface NSFileManager (ApplicationGroups)
- (nullable NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)groupIdentifier;
@end

#pragma clang assume_nonnull end
