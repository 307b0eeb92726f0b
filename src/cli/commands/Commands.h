#pragma once

#include <memory>
#include <optional>
#include <string>

#include "cli/ExitCode.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// What the options before a command say, for every command.
struct GlobalOptions {
  std::optional<std::string> container;
  bool json = false;
  bool verbose = false;
};

/// One extension, made for one command: the way of every direct command to the server.
class CommandContext {
 public:
  explicit CommandContext(const GlobalOptions& options);

  bool json() const { return json_; }
  NSFileProviderReplicatedExtension& extension() { return *extension_; }

  /// Reports the failure of a request about `path`, in JSON on standard output or in words on
  /// standard error, and tells how the command ends.
  ExitCode fail(std::string_view path, const NSError& error) const;

 private:
  const bool json_;
  const std::shared_ptr<NSFileProviderReplicatedExtension> extension_;
};

/// Each direct command throws `NSError` for the failure of its request, together with the path
/// that it is about, and `UsageError` or `OutputUnwritable` as their names say.
struct RequestFailure {
  std::string path;
  NSError error;
};

struct ListOptions {
  std::string path;
  bool longFormat = false;
  bool recursive = false;
};
ExitCode list(CommandContext& context, const ListOptions& options);

ExitCode stat(CommandContext& context, const std::string& path);

/// `file`: where to; a folder keeps the item's name, "-" is standard output, none the current
/// folder.
ExitCode get(CommandContext& context, const std::string& path,
             const std::optional<std::string>& file);

/// A `path` that ends in "/" keeps the file's name.
ExitCode put(CommandContext& context, const std::string& file, const std::string& path);

ExitCode makeFolder(CommandContext& context, const std::string& path);

/// A `to` that ends in "/" keeps the item's name.
ExitCode move(CommandContext& context, const std::string& from, const std::string& to);

ExitCode remove(CommandContext& context, const std::string& path, bool recursive);

/// Checks what the extension needs, one line each.
ExitCode doctor(const GlobalOptions& options);

}  // namespace kestrowan::cli
