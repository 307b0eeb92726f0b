#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// One host, as it made itself known to the user's commands. Paths are absolute.
struct HostEntry {
  std::string domain;
  std::string mountPoint;
  std::string stateDirectory;
  /// What it serves: the container's directory; empty when the host that wrote this did not say.
  std::string container;
  /// Words of the command line that mounts in the same way, besides what is told here.
  std::vector<std::string> options;
  /// Of its control socket.
  std::string socket;
  pid_t process = 0;
  /// When it made itself known, in nanoseconds since 1970-01-01 UTC; later ones are greater.
  std::int64_t registered = 0;
  /// Whether it still runs. One that does not has ended without saying so.
  bool running = false;
};

/// Makes a host known while the object lives: a small file per state directory, locked as long as
/// the process lives. Throws `NSError` of `NSPOSIXErrorDomain` with a text for a person.
class Registration {
 public:
  /// `entry.running` and `entry.registered` do not matter.
  explicit Registration(const HostEntry& entry);
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;
  ~Registration();

 private:
  const std::string file_;
  UniqueFd locked_;
};

/// The user's hosts that are known, sorted by mount point. Empty when there is no such place.
/// Throws `NSError` EACCES, in words that name what is at fault, when others could write there.
std::vector<HostEntry> knownHosts();

/// A path inside of a mount: the host, and the path from the root of the mount, which begins with
/// "/".
struct PlaceInMount {
  HostEntry host;
  std::string path;
};

/// Where `path` (absolute, or relative to `directory`) lies among the mounts of the running hosts,
/// told from the text of the path alone once it reaches a mount: nothing of a mount is touched.
/// Symbolic links above the mount are followed.
std::optional<PlaceInMount> placeInMount(const std::vector<HostEntry>& hosts, std::string_view path,
                                         const std::string& directory);

}  // namespace kestrowan::host
