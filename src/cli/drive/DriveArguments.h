#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// The members of a driver's request as the extension takes them. Each throws
/// `std::invalid_argument`, with a text for whoever wrote the request, when a member that is needed
/// is missing or a member is of another kind.

std::string textArgument(const JSONValue& object, std::string_view name);
std::optional<std::string> optionalTextArgument(const JSONValue& object, std::string_view name);

/// The local file of "contents"; nothing when absent or null.
std::optional<NSURL> contentsArgument(const JSONValue& request);
/// "baseVersion"; empty versions when absent or null.
NSFileProviderItemVersion baseVersionArgument(const JSONValue& request);
NSFileProviderItemFields changedFieldsArgument(const JSONValue& request);
NSFileProviderDeleteItemOptions deleteOptionsArgument(const JSONValue& request);
/// "item": a template without an identifier when `identified` is false.
NSFileProviderItemPtr itemArgument(const JSONValue& request, bool identified);

}  // namespace kestrowan::cli
