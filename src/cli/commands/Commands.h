#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/ExitCode.h"
#include "cli/ItemText.h"
#include "cli/Patience.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// What the options before a command say, for every command.
struct GlobalOptions {
  std::optional<std::string> container;
  bool json = false;
  bool verbose = false;
  /// What is written into the log: empty, or "http".
  std::string trace;
};

/// What is known of why a request failed, from a look at the server.
struct Circumstance {
  /// One of `host::reasonWords`.
  std::string_view reason;
  /// What is so of the item, for a person: "already there".
  std::string text;
};

/// What each command below throws when its request fails: the path that the failure is about, on
/// the server unless it is the local file's, the error, and what explains it where that is known.
/// It throws `UsageError` before anything is changed, and `OutputUnwritable` when standard output
/// or a local file cannot be written. Paths are the server's, as `serverPath` takes them; each
/// command blocks until it is done.
struct RequestFailure {
  std::string path;
  NSError error;
  std::optional<Circumstance> circumstance = std::nullopt;
};

/// One extension, made for one command: the way of every direct command to the server.
class CommandContext {
 public:
  /// `limit`: how long the command may take; see `Patience`.
  explicit CommandContext(const GlobalOptions& options,
                          std::optional<std::chrono::seconds> limit = std::nullopt);

  bool json() const { return json_; }
  NSFileProviderReplicatedExtension& extension() { return *extension_; }
  const Patience& patience() const { return patience_; }

  /// Reports a failure, in JSON on standard output or in words on standard error, and tells how the
  /// command ends.
  ExitCode fail(const RequestFailure& failure) const;
  /// Does `action`, and reports the `RequestFailure` or `UsageError` that leaves it in the same
  /// way.
  ExitCode reportingFailure(const std::function<void()>& action) const;

 private:
  const bool json_;
  const Patience patience_;
  const std::shared_ptr<NSFileProviderReplicatedExtension> extension_;
};

struct ListOptions {
  std::string path;
  bool isLong = false;
  bool recursive = false;
  enum class Order : std::uint8_t { byName, byDate, bySize } order = Order::byName;
  bool isReversed = false;
  LongForm form;
};
/// Prints a folder. Of several folders the ones that fail are reported as they come, and the
/// command ends with `partlyFailed`.
ExitCode list(CommandContext& context, const ListOptions& options);

/// Prints every property of one item.
ExitCode stat(CommandContext& context, const std::string& path, Zone zone);

/// Downloads. `file`: where to; a folder keeps the item's name, "-" is standard output, none the
/// current folder. Replaces a file that is there only once the download is whole; of a symbolic
/// link the link itself, or with `follow` what it leads to.
ExitCode get(CommandContext& context, const std::string& path,
             const std::optional<std::string>& file, bool follow);

/// Uploads the local `file`, and replaces what is there. A `path` that ends in "/" keeps the file's
/// name.
ExitCode put(CommandContext& context, const std::string& file, const std::string& path);

struct MakeFolderOptions {
  std::vector<std::string> paths;
  /// The folders above that are missing are made, too, and one that is there is no failure.
  bool withParents = false;
};
/// Makes each folder, whatever becomes of the others; fails when something is there.
ExitCode makeFolders(CommandContext& context, const MakeFolderOptions& options);

/// Renames or moves, unless the item's capabilities forbid it; never replaces another item. A `to`
/// that ends in "/" keeps the item's name.
ExitCode move(CommandContext& context, const std::string& from, const std::string& to);

struct RemoveOptions {
  std::vector<std::string> paths;
  /// A folder, too, with all that is in it.
  bool recursive = false;
  /// What is not there is no failure.
  bool isForced = false;
};
/// Removes each item, whatever becomes of the others, unless its capabilities forbid it.
ExitCode remove(CommandContext& context, const RemoveOptions& options);

/// Checks what the extension and a mount need, one line each. Throws `OutputUnwritable` alone.
ExitCode doctor(const GlobalOptions& options);

}  // namespace kestrowan::cli
