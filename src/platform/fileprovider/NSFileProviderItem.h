#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSData.h"
#include "platform/foundation/NSDate.h"
#include "platform/types/UTType.h"

namespace kestrowan {

using NSFileProviderItemIdentifier = std::string;

inline constexpr std::string_view NSFileProviderRootContainerItemIdentifier =
    "NSFileProviderRootContainerItemIdentifier";
inline constexpr std::string_view NSFileProviderWorkingSetContainerItemIdentifier =
    "NSFileProviderWorkingSetContainerItemIdentifier";
inline constexpr std::string_view NSFileProviderTrashContainerItemIdentifier =
    "NSFileProviderTrashContainerItemIdentifier";

/// What may be done with an item: bits of `NSFileProviderItemCapability`.
using NSFileProviderItemCapabilities = std::uint64_t;

namespace NSFileProviderItemCapability {
inline constexpr NSFileProviderItemCapabilities allowsReading = 1;
inline constexpr NSFileProviderItemCapabilities allowsWriting = 2;
inline constexpr NSFileProviderItemCapabilities allowsReparenting = 4;
inline constexpr NSFileProviderItemCapabilities allowsRenaming = 8;
inline constexpr NSFileProviderItemCapabilities allowsTrashing = 16;
inline constexpr NSFileProviderItemCapabilities allowsDeleting = 32;
inline constexpr NSFileProviderItemCapabilities allowsEvicting = 64;
inline constexpr NSFileProviderItemCapabilities allowsExcludingFromSync = 128;
}  // namespace NSFileProviderItemCapability

/// A set of item fields: bits of `NSFileProviderItemField`.
using NSFileProviderItemFields = std::uint64_t;

namespace NSFileProviderItemField {
inline constexpr NSFileProviderItemFields contents = 1;
inline constexpr NSFileProviderItemFields filename = 2;
inline constexpr NSFileProviderItemFields parentItemIdentifier = 4;
inline constexpr NSFileProviderItemFields lastUsedDate = 8;
inline constexpr NSFileProviderItemFields tagData = 16;
inline constexpr NSFileProviderItemFields favoriteRank = 32;
inline constexpr NSFileProviderItemFields creationDate = 64;
inline constexpr NSFileProviderItemFields contentModificationDate = 128;
inline constexpr NSFileProviderItemFields fileSystemFlags = 256;
inline constexpr NSFileProviderItemFields extendedAttributes = 512;
inline constexpr NSFileProviderItemFields typeAndCreator = 1024;
}  // namespace NSFileProviderItemField

/// The state of an item's contents and of its metadata, as opaque bytes.
struct NSFileProviderItemVersion {
  NSData contentVersion;
  NSData metadataVersion;

  friend bool operator==(const NSFileProviderItemVersion&,
                         const NSFileProviderItemVersion&) = default;
};

/// One file or folder: what a provider reports, and what a host passes in as a template.
/// Immutable, shared by pointer, usable from every thread.
class NSFileProviderItem {
 public:
  virtual ~NSFileProviderItem() = default;

  virtual NSFileProviderItemIdentifier itemIdentifier() const = 0;
  virtual NSFileProviderItemIdentifier parentItemIdentifier() const = 0;
  virtual std::string filename() const = 0;
  /// Absent only for a template that does not say.
  virtual std::optional<UTType> contentType() const = 0;
  virtual NSFileProviderItemCapabilities capabilities() const = 0;
  /// Bytes; absent for folders and when unknown.
  virtual std::optional<std::int64_t> documentSize() const = 0;
  virtual std::optional<NSDate> contentModificationDate() const = 0;
  virtual NSFileProviderItemVersion itemVersion() const = 0;
};

/// May be null where a contract says so.
using NSFileProviderItemPtr = std::shared_ptr<const NSFileProviderItem>;

}  // namespace kestrowan
