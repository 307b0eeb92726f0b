#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "items/FPItem.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"

namespace kestrowan {

/// What creating and modifying an item have in common.

/// Whether a host's template or item is a folder: exactly when it says that its type is
/// `UTType::folder()`.
bool isFolder(const NSFileProviderItem& item);

/// The item after a write to `path`: what the server reported, or `wordWithoutEntry` as the entity
/// tag of an item of size 0 when its reply held no entry.
std::shared_ptr<const FPItem> writtenItem(std::string_view path, bool isDir,
                                          const std::optional<WebDAVEntry>& entry,
                                          std::string_view wordWithoutEntry);

/// Completes a write that was refused or failed: `item` (null for none), no remaining fields.
void completeWithError(const WriteCompletion& completionHandler, NSFileProviderItemPtr item,
                       const NSError& error);

}  // namespace kestrowan
