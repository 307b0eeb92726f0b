#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "support/InMemoryExtension.h"
#include "support/MemoryItem.h"
#include "support/MemoryServer.h"

namespace kestrowan::test {

/// How the provider in memory names and describes what is on its server. Immutable; usable from
/// every thread.
class MemoryItems {
 public:
  MemoryItems(std::shared_ptr<MemoryServer> server, InMemoryOptions options)
      : server_(std::move(server)), options_(std::move(options)) {}

  MemoryServer& server() const { return *server_; }
  std::size_t pageSize() const { return options_.pageSize; }

  /// The server's path of an identifier; nothing for one that stands for nothing.
  std::optional<std::string> path(const NSFileProviderItemIdentifier& identifier) const;
  static std::string childPath(std::string_view folder, std::string_view name);
  bool isProtected(std::string_view path) const;

  NSFileProviderItemPtr root() const;
  NSFileProviderItemPtr item(const ServerEntry& entry) const;
  /// An item of which the server told nothing: its version says `word`.
  NSFileProviderItemPtr itemWithoutEntry(const std::string& path, bool isFolder,
                                         std::string_view word, std::int64_t size) const;

 private:
  NSFileProviderItemIdentifier identifier(std::uint64_t number, const std::string& path) const;
  NSFileProviderItemIdentifier folderIdentifier(const std::string& path) const;
  std::shared_ptr<MemoryItem> named(const std::string& path, bool isFolder) const;

  const std::shared_ptr<MemoryServer> server_;
  const InMemoryOptions options_;
};

}  // namespace kestrowan::test
