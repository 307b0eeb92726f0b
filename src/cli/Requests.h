#pragma once

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Abandonment.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"

namespace kestrowan::cli {

/// One of the extension's requests, for commands that do one thing after another. The extension
/// need not outlive it.
template <typename T>
struct Request {
  /// Holds the result or throws the request's `NSError`.
  std::future<T> answer;
  /// Declared by the command when it waits no more. Never null.
  std::shared_ptr<Abandonment> caller;
};

Request<std::vector<NSFileProviderItemPtr>> listFolder(NSFileProviderReplicatedExtension& extension,
                                                       const NSFileProviderItemIdentifier& folder);

Request<NSFileProviderItemPtr> lookUp(NSFileProviderReplicatedExtension& extension,
                                      const NSFileProviderItemIdentifier& identifier);

struct FetchedContents {
  NSURL file;
  NSFileProviderItemPtr item;
};
Request<FetchedContents> fetch(NSFileProviderReplicatedExtension& extension,
                               const NSFileProviderItemIdentifier& identifier);

Request<NSFileProviderItemPtr> create(NSFileProviderReplicatedExtension& extension,
                                      NSFileProviderItemPtr basedOnTemplate,
                                      std::optional<NSURL> contents);

Request<NSFileProviderItemPtr> modify(NSFileProviderReplicatedExtension& extension,
                                      NSFileProviderItemPtr item,
                                      NSFileProviderItemFields changedFields);

Request<void> remove(NSFileProviderReplicatedExtension& extension,
                     const NSFileProviderItemIdentifier& identifier, bool recursive);

}  // namespace kestrowan::cli
