#pragma once

#include <optional>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

/// {domain, code, localizedDescription, userInfo}
JSONValue jsonForm(const NSError& error);
/// null, or the error's form.
JSONValue jsonForm(const std::optional<NSError>& error);
/// {domain, code, localizedDescription, userInfo, status, reason} of a command's failure: the
/// status null without an answer of the server, the reason one of `host::reasonWords`.
JSONValue failureForm(const NSError& error, std::string_view reason);
JSONValue failureForm(const NSError& error);
/// The reason that follows from the error alone: what the server answered, or the error's own.
std::string_view reasonOf(const NSError& error);
/// null, or every property of the item; versions as text, dates in seconds since 1970.
JSONValue jsonForm(const NSFileProviderItemPtr& item);
JSONValue jsonForm(const std::vector<NSFileProviderItemPtr>& items);

/// The names of a set of fields, as the driver exchanges them.
JSONValue fieldNames(NSFileProviderItemFields fields);
/// The field of that name; nothing for an unknown one.
std::optional<NSFileProviderItemFields> fieldNamed(std::string_view name);

}  // namespace kestrowan::cli
