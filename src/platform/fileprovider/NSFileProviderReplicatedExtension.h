#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/fileprovider/NSFileProviderEnumerator.h"
#include "platform/fileprovider/NSFileProviderItem.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSProgress.h"
#include "platform/foundation/NSURL.h"

namespace kestrowan {

/// One tree that a host projects. Immutable.
struct NSFileProviderDomain {
  std::string identifier;
  std::string displayName;
};

/// Who asks, and how; nothing here that a provider needs.
struct NSFileProviderRequest {};

/// Bits that a host may set; the meaning of 0 is the ordinary case.
using NSFileProviderCreateItemOptions = std::uint64_t;
using NSFileProviderModifyItemOptions = std::uint64_t;
using NSFileProviderDeleteItemOptions = std::uint64_t;

namespace NSFileProviderCreateItemOption {
inline constexpr NSFileProviderCreateItemOptions mayAlreadyExist = 1;
inline constexpr NSFileProviderCreateItemOptions deletionConflicted = 2;
}  // namespace NSFileProviderCreateItemOption

namespace NSFileProviderDeleteItemOption {
inline constexpr NSFileProviderDeleteItemOptions recursive = 1;
}  // namespace NSFileProviderDeleteItemOption

using ItemCompletion = std::function<void(NSFileProviderItemPtr, std::optional<NSError>)>;
using FetchCompletion =
    std::function<void(std::optional<NSURL>, NSFileProviderItemPtr, std::optional<NSError>)>;
/// The item as it is now (or null), the fields that remain to be applied, whether the contents
/// must be fetched again, and the error if there was one.
using WriteCompletion = std::function<void(NSFileProviderItemPtr, NSFileProviderItemFields, bool,
                                           std::optional<NSError>)>;
using DeleteCompletion = std::function<void(std::optional<NSError>)>;

/// What a host asks of a provider, one object per domain. Every entry point may be called from any
/// thread and returns at once; its completion handler is called exactly once, before or after the
/// entry point returns, from any thread. The progress is never null.
class NSFileProviderReplicatedExtension {
 public:
  virtual ~NSFileProviderReplicatedExtension() = default;

  /// The host will not use this object any more; calls in flight still complete.
  virtual void invalidate() = 0;

  /// A listing of the container; never null. May throw `NSError`.
  virtual std::shared_ptr<NSFileProviderEnumerator> enumerator(
      const NSFileProviderItemIdentifier& forContainer, const NSFileProviderRequest& request) = 0;

  virtual std::shared_ptr<NSProgress> item(const NSFileProviderItemIdentifier& forIdentifier,
                                           const NSFileProviderRequest& request,
                                           ItemCompletion completionHandler) = 0;

  /// Downloads an item's contents; the file at the URL then belongs to the host.
  virtual std::shared_ptr<NSProgress> fetchContents(
      const NSFileProviderItemIdentifier& forIdentifier,
      const std::optional<NSFileProviderItemVersion>& version, const NSFileProviderRequest& request,
      FetchCompletion completionHandler) = 0;

  /// Creates an item like `basedOnTemplate`. `contents` must not change until completion.
  virtual std::shared_ptr<NSProgress> createItem(NSFileProviderItemPtr basedOnTemplate,
                                                 NSFileProviderItemFields fields,
                                                 std::optional<NSURL> contents,
                                                 NSFileProviderCreateItemOptions options,
                                                 const NSFileProviderRequest& request,
                                                 WriteCompletion completionHandler) = 0;

  /// Applies `changedFields` of `item`. `contents` must not change until completion.
  virtual std::shared_ptr<NSProgress> modifyItem(NSFileProviderItemPtr item,
                                                 const NSFileProviderItemVersion& baseVersion,
                                                 NSFileProviderItemFields changedFields,
                                                 std::optional<NSURL> contents,
                                                 NSFileProviderModifyItemOptions options,
                                                 const NSFileProviderRequest& request,
                                                 WriteCompletion completionHandler) = 0;

  virtual std::shared_ptr<NSProgress> deleteItem(const NSFileProviderItemIdentifier& identifier,
                                                 const NSFileProviderItemVersion& baseVersion,
                                                 NSFileProviderDeleteItemOptions options,
                                                 const NSFileProviderRequest& request,
                                                 DeleteCompletion completionHandler) = 0;
};

}  // namespace kestrowan
