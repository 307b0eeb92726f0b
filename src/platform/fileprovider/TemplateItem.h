#pragma once

#include <optional>
#include <string>
#include <utility>

#include "platform/fileprovider/NSFileProviderItem.h"

namespace kestrowan {

/// What a host tells a provider of an item that it wants made or changed: its place and, if known,
/// its type. Immutable.
class TemplateItem : public NSFileProviderItem {
 public:
  struct Values {
    NSFileProviderItemIdentifier itemIdentifier;
    NSFileProviderItemIdentifier parentItemIdentifier;
    std::string filename;
    std::optional<UTType> contentType;
  };

  explicit TemplateItem(Values values) : values_(std::move(values)) {}

  NSFileProviderItemIdentifier itemIdentifier() const override { return values_.itemIdentifier; }
  NSFileProviderItemIdentifier parentItemIdentifier() const override {
    return values_.parentItemIdentifier;
  }
  std::string filename() const override { return values_.filename; }
  std::optional<UTType> contentType() const override { return values_.contentType; }
  NSFileProviderItemCapabilities capabilities() const override { return 0; }
  std::optional<std::int64_t> documentSize() const override { return std::nullopt; }
  std::optional<NSDate> contentModificationDate() const override { return std::nullopt; }
  NSFileProviderItemVersion itemVersion() const override { return {}; }

 private:
  const Values values_;
};

}  // namespace kestrowan
