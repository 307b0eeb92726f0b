#pragma once

#include <Block.h>
#include <stddef.h>
#include <stdint.h>

/// Declarations of the Foundation framework, as far as the shell uses it, written from its public
/// documentation: enough to compile for the platform where the framework does not exist.

typedef bool BOOL;
#define YES true
#define NO false
#define nil nullptr

typedef long NSInteger;
typedef unsigned long NSUInteger;
typedef unsigned short unichar;
typedef double NSTimeInterval;
typedef NSUInteger NSStringEncoding;
typedef struct _NSZone NSZone;
enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

#pragma clang assume_nonnull begin

@class NSData, NSDictionary, NSString;

@protocol NSObject
- (BOOL)isEqual:(id)object;
- (NSUInteger)hash;
- (BOOL)respondsToSelector:(SEL)selector;
- (instancetype)retain;
- (oneway void)release;
- (instancetype)autorelease;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject>
+ (instancetype)alloc;
+ (Class)class;
- (instancetype)init;
@end

@interface NSString : NSObject
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
- (nullable NSData*)dataUsingEncoding:(NSStringEncoding)encoding;
- (NSUInteger)length;
- (unichar)characterAtIndex:(NSUInteger)index;
- (NSString*)stringByStandardizingPath;
@end

@interface NSConstantString : NSString
@end

@interface NSData : NSObject
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
- (const void*)bytes;
- (NSUInteger)length;
@end

@interface NSNumber : NSObject
+ (NSNumber*)numberWithLongLong:(long long)value;
- (long long)longLongValue;
@end

@interface NSDate : NSObject
+ (instancetype)dateWithTimeIntervalSince1970:(NSTimeInterval)seconds;
- (NSTimeInterval)timeIntervalSince1970;
@end

@interface NSURL : NSObject
+ (NSURL*)fileURLWithPath:(NSString*)path isDirectory:(BOOL)isDirectory;
- (nullable NSString*)path;
@end

@interface NSArray : NSObject
@end

@interface NSMutableArray : NSArray
+ (instancetype)arrayWithCapacity:(NSUInteger)capacity;
- (void)addObject:(id)object;
@end

@interface NSDictionary : NSObject
@end

@interface NSMutableDictionary : NSDictionary
+ (instancetype)dictionary;
- (void)setObject:(id)object forKey:(id)key;
@end

@interface NSError : NSObject
- (instancetype)initWithDomain:(NSString*)domain
                          code:(NSInteger)code
                      userInfo:(nullable NSDictionary*)userInfo;
@end

@interface NSProgress : NSObject
- (instancetype)initWithParent:(nullable NSProgress*)parent
                      userInfo:(nullable NSDictionary*)userInfo;
- (int64_t)totalUnitCount;
- (void)setTotalUnitCount:(int64_t)count;
- (int64_t)completedUnitCount;
- (void)setCompletedUnitCount:(int64_t)count;
@end

@interface NSFileManager : NSObject
+ (NSFileManager*)defaultManager;
@end

extern "C" {
extern NSString* const NSLocalizedDescriptionKey;
NSString* NSTemporaryDirectory(void);
}

#pragma clang assume_nonnull end
