#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSURL.h"

// The platform's headers come last, so that no macro of theirs reaches the module's.
#import <FileProvider/FileProvider.h>
#import <Foundation/Foundation.h>

/// Values of the platform from values of the module and back. Stateless, usable from every thread;
/// objects are returned autoreleased, text is UTF-8.
namespace kestrowan::macos {

/// Bytes that are no text are escaped, so that the result is never nil.
::NSString* platformString(std::string_view text);
::NSData* platformData(std::string_view bytes);
/// Of a file URL.
::NSURL* platformURL(const NSURL& file);
/// `FileProviderExtension::permDenied()` gives the same object each time. A text that stands for
/// an underlying error becomes the debug description, since the platform expects an error there;
/// an error of the session carries its own description, as the platform's session writes it.
::NSError* platformError(const NSError& error);
/// The item that `coreItem` was given, itself; an `FPItem` for any other; nil for null.
id<NSFileProviderItem> platformItem(const NSFileProviderItemPtr& item);
::NSFileProviderItemVersion* platformVersion(const NSFileProviderItemVersion& version);

/// The value behind `value`, or nil.
::NSURL* platformURL(const std::optional<NSURL>& value);
::NSError* platformError(const std::optional<NSError>& value);

/// A surrogate without a partner is replaced by U+FFFD.
std::string coreString(::NSString* text);
NSData coreData(::NSData* bytes);
/// Nothing for nil.
std::optional<NSURL> coreURL(::NSURL* file);
/// A view of the platform's item, which it keeps alive.
NSFileProviderItemPtr coreItem(id<NSFileProviderItem> item);
NSFileProviderItemVersion coreVersion(::NSFileProviderItemVersion* version);
NSFileProviderDomain coreDomain(::NSFileProviderDomain* domain);

}  // namespace kestrowan::macos
