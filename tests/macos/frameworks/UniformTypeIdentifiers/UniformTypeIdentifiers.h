#pragma once

#import <Foundation/Foundation.h>

/// Declarations of the framework of uniform type identifiers, as far as the shell uses it.

#pragma clang assume_nonnull begin

@interface UTType : NSObject {
 @private
  NSString* identifier_;
}
+ (nullable UTType*)typeWithFilenameExtension:(NSString*)filenameExtension
                             conformingToType:(UTType*)supertype;
- (NSString*)identifier;
@end

#ifdef __cplusplus
extern "C" {
#endif
#ifdef __APPLE__
extern UTType* const UTTypeFolder;
extern UTType* const UTTypeData;
#else
// Made when the class is loaded, so not constant here.
extern UTType* UTTypeFolder;
extern UTType* UTTypeData;
#endif
#ifdef __cplusplus
}
#endif

#pragma clang assume_nonnull end
