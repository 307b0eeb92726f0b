#pragma once

#include "platform/fileprovider/NSFileProviderItem.h"

#import <FileProvider/FileProvider.h>

#include "macos/Retained.h"

namespace kestrowan::macos {

/// An item or template of the platform as the module sees it. Keeps the platform's object alive and
/// asks it on every call; what it does not answer is absent, zero or empty.
class PlatformItem : public NSFileProviderItem {
 public:
  explicit PlatformItem(id<NSFileProviderItem> item) : item_(item) {}

  /// The platform's object itself; valid while this lives.
  id<NSFileProviderItem> platformItem() const { return item_.get(); }

  NSFileProviderItemIdentifier itemIdentifier() const override;
  NSFileProviderItemIdentifier parentItemIdentifier() const override;
  std::string filename() const override;
  std::optional<UTType> contentType() const override;
  NSFileProviderItemCapabilities capabilities() const override;
  std::optional<std::int64_t> documentSize() const override;
  std::optional<NSDate> contentModificationDate() const override;
  NSFileProviderItemVersion itemVersion() const override;

 private:
  const Retained<id<NSFileProviderItem>> item_;
};

}  // namespace kestrowan::macos
