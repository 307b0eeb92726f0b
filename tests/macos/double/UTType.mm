#include "platform/types/UTType.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "double/Double.h"

UTType* UTTypeFolder;
UTType* UTTypeData;

namespace {

std::mutex askedMutex;
std::vector<std::string> asked;
std::atomic<bool> typesUnknown = false;

}  // namespace

namespace kestrowan::test {

std::vector<std::string> takeAskedExtensions() {
  std::lock_guard lock(askedMutex);
  return std::exchange(asked, {});
}

void setTypesUnknown(bool unknown) {
  typesUnknown = unknown;
}

}  // namespace kestrowan::test

@interface UTType (Making)
- (instancetype)initWithIdentifier:(NSString*)identifier;
@end

@implementation UTType

+ (void)load {
  UTTypeFolder = [[UTType alloc] initWithIdentifier:@"public.folder"];
  UTTypeData = [[UTType alloc] initWithIdentifier:@"public.data"];
}

+ (UTType*)typeWithFilenameExtension:(NSString*)filenameExtension
                    conformingToType:(UTType*)supertype {
  const std::string extension = [filenameExtension UTF8String];
  {
    std::lock_guard lock(askedMutex);
    asked.push_back(extension);
  }
  if (typesUnknown) return nil;
  const auto type =
      kestrowan::UTType::type(extension, kestrowan::UTType([[supertype identifier] UTF8String]));
  if (!type) return nil;
  NSString* identifier = [NSString stringWithUTF8String:type->identifier().c_str()];
  return [[[UTType alloc] initWithIdentifier:identifier] autorelease];
}

- (instancetype)initWithIdentifier:(NSString*)identifier {
  self = [super init];
  if (self) identifier_ = [identifier copy];
  return self;
}

- (void)dealloc {
  [identifier_ release];
  [super dealloc];
}

- (NSString*)identifier {
  return identifier_;
}

- (BOOL)isEqual:(id)other {
  return [other isKindOfClass:[UTType class]] && [identifier_ isEqual:[other identifier]];
}

- (NSUInteger)hash {
  return [identifier_ hash];
}

@end
