#pragma once

#include <future>
#include <optional>
#include <string>
#include <vector>

#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"

namespace kestrowan::cli {

/// The extension's requests as futures, for commands that do one thing after another. Each future
/// holds the result or throws the request's `NSError`. The extension need not outlive any of them.

std::future<std::vector<NSFileProviderItemPtr>> listFolder(
    NSFileProviderReplicatedExtension& extension, const NSFileProviderItemIdentifier& folder);

std::future<NSFileProviderItemPtr> lookUp(NSFileProviderReplicatedExtension& extension,
                                          const NSFileProviderItemIdentifier& identifier);

struct FetchedContents {
  NSURL file;
  NSFileProviderItemPtr item;
};
std::future<FetchedContents> fetch(NSFileProviderReplicatedExtension& extension,
                                   const NSFileProviderItemIdentifier& identifier);

std::future<NSFileProviderItemPtr> create(NSFileProviderReplicatedExtension& extension,
                                          NSFileProviderItemPtr basedOnTemplate,
                                          std::optional<NSURL> contents);

std::future<NSFileProviderItemPtr> modify(NSFileProviderReplicatedExtension& extension,
                                          NSFileProviderItemPtr item,
                                          NSFileProviderItemFields changedFields);

std::future<void> remove(NSFileProviderReplicatedExtension& extension,
                         const NSFileProviderItemIdentifier& identifier, bool recursive);

}  // namespace kestrowan::cli
