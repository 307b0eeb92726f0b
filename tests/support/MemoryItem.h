#pragma once

#include <string>

#include "platform/fileprovider/NSFileProviderItem.h"

namespace kestrowan::test {

/// An item whose every property is what a test or the provider in memory says. Used as immutable.
struct MemoryItem : NSFileProviderItem {
  static constexpr NSFileProviderItemCapabilities kEverything =
      NSFileProviderItemCapability::allowsReading | NSFileProviderItemCapability::allowsWriting |
      NSFileProviderItemCapability::allowsRenaming | NSFileProviderItemCapability::allowsDeleting;

  std::string identifier;
  std::string parent{NSFileProviderRootContainerItemIdentifier};
  std::string name;
  bool isFolder = false;
  NSFileProviderItemCapabilities allowed = kEverything;
  std::optional<std::int64_t> size;
  std::optional<NSDate> date;
  NSFileProviderItemVersion version;

  NSFileProviderItemIdentifier itemIdentifier() const override { return identifier; }
  NSFileProviderItemIdentifier parentItemIdentifier() const override { return parent; }
  std::string filename() const override { return name; }
  std::optional<UTType> contentType() const override {
    return isFolder ? UTType::folder() : UTType::data();
  }
  NSFileProviderItemCapabilities capabilities() const override { return allowed; }
  std::optional<std::int64_t> documentSize() const override { return size; }
  std::optional<NSDate> contentModificationDate() const override { return date; }
  NSFileProviderItemVersion itemVersion() const override { return version; }
};

}  // namespace kestrowan::test
