#include "macos/Convert.h"

#include <memory>

#include "extension/FileProviderExtension.h"
#include "macos/FPItem.h"
#include "macos/PlatformItem.h"
#include "macos/Retained.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/UTF8.h"

namespace kestrowan::macos {

namespace {

constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";
constexpr char32_t kReplacementCharacter = 0xFFFD;

/// Nil when `text` is not valid UTF-8.
::NSString* decodedString(std::string_view text) {
  return [[[::NSString alloc] initWithBytes:text.data()
                                     length:text.size()
                                   encoding:NSUTF8StringEncoding] autorelease];
}

/// `text`, which has surrogates without a partner, with a replacement for each of them.
std::string repairedString(::NSString* text) {
  std::string repaired;
  const ::NSUInteger length = [text length];
  for (::NSUInteger at = 0; at < length; ++at) {
    const char32_t unit = [text characterAtIndex:at];
    const char32_t next = at + 1 < length ? [text characterAtIndex:at + 1] : 0;
    if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
      appendUTF8(repaired, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
      ++at;
    } else {
      const bool isSurrogate = unit >= 0xD800 && unit < 0xE000;
      appendUTF8(repaired, isSurrogate ? kReplacementCharacter : unit);
    }
  }
  return repaired;
}

/// The platform's name for a key of the module's.
::NSString* platformUserInfoKey(std::string_view key) {
  if (key == NSLocalizedDescriptionKey) return ::NSLocalizedDescriptionKey;
  if (key == kUnderlyingErrorKey) return @"NSDebugDescription";
  return platformString(key);
}

::NSDictionary* platformUserInfo(const NSError& error) {
  ::NSMutableDictionary* info = [::NSMutableDictionary dictionary];
  for (const auto& [key, value] : error.userInfo()) {
    [info setObject:platformString(value) forKey:platformUserInfoKey(key)];
  }
  if (error.domain() == NSURLErrorDomain) {
    [info setObject:platformString(error.localizedDescription())
             forKey:platformUserInfoKey(NSLocalizedDescriptionKey)];
  }
  return info;
}

::NSError* newPlatformError(const NSError& error, ::NSDictionary* userInfo) {
  return [[::NSError alloc] initWithDomain:platformString(error.domain())
                                      code:static_cast<::NSInteger>(error.code())
                                  userInfo:userInfo];
}

}  // namespace

::NSString* platformString(std::string_view text) {
  ::NSString* string = decodedString(text);
  return string ? string : decodedString(escapedForDisplay(text));
}

::NSData* platformData(std::string_view bytes) {
  return [::NSData dataWithBytes:bytes.data() length:bytes.size()];
}

::NSURL* platformURL(const NSURL& file) {
  return [::NSURL fileURLWithPath:platformString(file.path()) isDirectory:NO];
}

::NSURL* platformURL(const std::optional<NSURL>& value) {
  return value ? platformURL(*value) : nil;
}

::NSError* platformError(const NSError& error) {
  if (error.isIdenticalTo(FileProviderExtension::permDenied())) {
    static ::NSError* const permDenied = newPlatformError(error, nil);
    return permDenied;
  }
  return [newPlatformError(error, platformUserInfo(error)) autorelease];
}

::NSError* platformError(const std::optional<NSError>& value) {
  return value ? platformError(*value) : nil;
}

id<NSFileProviderItem> platformItem(const NSFileProviderItemPtr& item) {
  if (!item) return nil;
  if (const auto* own = dynamic_cast<const PlatformItem*>(item.get())) return own->platformItem();
  return [[[::FPItem alloc] initWithCore:item] autorelease];
}

::NSFileProviderItemVersion* platformVersion(const NSFileProviderItemVersion& version) {
  return [[[::NSFileProviderItemVersion alloc]
      initWithContentVersion:platformData(version.contentVersion)
             metadataVersion:platformData(version.metadataVersion)] autorelease];
}

std::string coreString(::NSString* text) {
  ::NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
  return [bytes length] > 0 ? coreData(bytes) : repairedString(text);
}

NSData coreData(::NSData* bytes) {
  return NSData(static_cast<const char*>([bytes bytes]), [bytes length]);
}

std::optional<NSURL> coreURL(::NSURL* file) {
  if (!file) return std::nullopt;
  return NSURL::fileURLWithPath(coreString([file path]));
}

NSFileProviderItemPtr coreItem(id<NSFileProviderItem> item) {
  return std::make_shared<const PlatformItem>(item);
}

NSFileProviderItemVersion coreVersion(::NSFileProviderItemVersion* version) {
  return {coreData([version contentVersion]), coreData([version metadataVersion])};
}

NSFileProviderDomain coreDomain(::NSFileProviderDomain* domain) {
  return {coreString([domain identifier]), coreString([domain displayName])};
}

}  // namespace kestrowan::macos
