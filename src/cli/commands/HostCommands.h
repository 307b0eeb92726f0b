#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/ExitCode.h"
#include "cli/commands/Commands.h"

namespace kestrowan::cli {

/// The commands of a mount, and those that ask a mount which runs. Paths are the file system's:
/// absolute, or relative to the current directory. Each throws `UsageError` and `OutputUnwritable`
/// as their names say; every other failure is reported by the command itself.

struct MountCommand {
  std::string mountPoint;
  bool background = false;
  std::optional<std::string> stateDirectory;
  std::optional<std::string> domain;  // the container's own when absent
  bool moveHere = false;
  std::uint64_t cacheLimit = 0;                      // bytes; 0 for the usual
  std::uint64_t historyLimit = 0;                    // the same
  std::uint64_t streaming = std::uint64_t{1} << 20;  // bytes; 0 for off
  std::uint32_t historyDays = 7;
  std::string fsync = "local";                        // or "server"
  std::string close = "return";                       // or "wait"
  std::string moves = "pass";                         // or "refuse"
  std::string events = "on";                          // or "off"
  std::string backgroundPrograms = "deny";            // or "allow"
  std::vector<std::string> backgroundProgram;         // patterns of further names
  std::uint64_t thumbnails = std::uint64_t{1} << 20;  // bytes
  bool noLocalNames = false;
  bool noExec = false;
  bool noIndex = false;
  unsigned drain = 30;  // seconds
};
/// Mounts, and serves until it is unmounted or told to end.
ExitCode mount(const GlobalOptions& options, const MountCommand& command);

ExitCode unmount(const GlobalOptions& options, const std::string& mountPoint, bool force);

struct StatusCommand {
  std::optional<std::string> mountPoint;  // every mount when absent
  bool watch = false;
};
ExitCode status(const GlobalOptions& options, const StatusCommand& command);

/// Without `limit`, waits as long as it takes.
ExitCode wait(const GlobalOptions& options, const std::optional<std::string>& mountPoint,
              std::optional<std::chrono::seconds> limit);

/// Each of several paths is worked on, whatever becomes of the others.
ExitCode evict(const GlobalOptions& options, const std::vector<std::string>& paths);
ExitCode pin(const GlobalOptions& options, const std::vector<std::string>& paths, bool pinned);
/// Without `path`, everything in every mount.
ExitCode retry(const GlobalOptions& options, const std::optional<std::string>& path);
/// Asks before it does anything, unless `confirmed`.
ExitCode discard(const GlobalOptions& options, const std::string& path, bool confirmed);

/// Lists the conflicts of every mount.
ExitCode conflicts(const GlobalOptions& options);
/// Resolves the conflicts that these files are a side of. `keep`: "mine", "theirs" or "both".
ExitCode resolve(const GlobalOptions& options, const std::string& keep,
                 const std::vector<std::string>& paths);

struct HistoryCommand {
  std::optional<std::string> path;  // every mount when absent
  bool clear = false;
  std::uint32_t olderThan = 0;  // days; what is cleared
  bool confirmed = false;
};
/// Shows what left its place, or removes it for good; asks before that, unless `confirmed`.
ExitCode history(const GlobalOptions& options, const HistoryCommand& command);
/// Makes a file of an entry of the history again: where it was, or at `to`.
ExitCode restore(const GlobalOptions& options, std::uint64_t entry,
                 const std::optional<std::string>& to);

}  // namespace kestrowan::cli
