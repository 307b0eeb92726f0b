#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "webdav/WebDAVEntry.h"

namespace kestrowan {

/// One file or folder of the server's tree, as it was when the server was asked. Immutable, shared
/// by pointer, usable from every thread; every property is computed from the five stored fields.
class FPItem : public NSFileProviderItem {
 public:
  FPItem() = delete;
  /// `idPath` is a normalised server path, `size` bytes.
  FPItem(std::string idPath, bool isDir, std::int64_t size, std::string etag,
         std::optional<NSDate> modified);

  /// The item of an entry that the server reported.
  static std::shared_ptr<const FPItem> make(const WebDAVEntry& entry);

  /// The server path that an identifier stands for: "/" for the root container.
  static std::string path(const NSFileProviderItemIdentifier& forIdentifier);

  /// Whether `path` is, or lies in, an item directly in "/Home/" that is only for reading: a file
  /// or folder whose name begins with ".", or one of `criticalHomeFolders`.
  static bool isHomeProtected(std::string_view path);
  static const std::set<std::string, std::less<>>& criticalHomeFolders();

  NSFileProviderItemIdentifier itemIdentifier() const override;
  NSFileProviderItemIdentifier parentItemIdentifier() const override;
  std::string filename() const override;
  std::optional<UTType> contentType() const override;
  NSFileProviderItemCapabilities capabilities() const override;
  std::optional<std::int64_t> documentSize() const override;
  std::optional<NSDate> contentModificationDate() const override;
  /// Fatal when the modification date lies outside the signed 64-bit range of seconds.
  NSFileProviderItemVersion itemVersion() const override;

 private:
  bool isRoot() const { return idPath_ == "/"; }

  const std::string idPath_;
  const bool isDir_;
  const std::int64_t size_;
  const std::string etag_;
  const std::optional<NSDate> modified_;
};

}  // namespace kestrowan
