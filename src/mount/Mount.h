#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "replica/Replica.h"

namespace kestrowan::mount {

struct WatchEvents;

struct MountOptions {
  std::string mountPoint;
  /// What the table of mounts names as the source.
  std::string source = "kestrowan";
  /// To whom every item belongs, and who alone may look in.
  uid_t user = 0;
  gid_t group = 0;
  /// Whether programs on the mount cannot be run.
  bool noexec = false;
  /// Whether the root shows the files of `MarkerFiles`.
  bool showMarkers = false;
  /// At most so many requests are worked on at once; those that wait for the provider do not count.
  unsigned threads = 16;
  /// How long the kernel answers with names and attributes that it knows. What the replica changes
  /// it learns all the same.
  std::chrono::milliseconds cacheTime{1000};
  /// Patterns of names of programs that work in the background, besides those that are known.
  std::vector<std::string> backgroundPrograms;
  /// Where the replica lies, which must not be covered by the mount. May be empty.
  std::string stateDirectory;
  /// Called once, from another thread, when the mount has ended, however that came. May be empty.
  std::function<void()> ended;
  /// Through which programs that watch folders learn of changes at the server; null when they are
  /// not to.
  std::shared_ptr<WatchEvents> events;
};

/// One replica as a folder of the system: answers the kernel's requests with calls of the replica,
/// and tells the kernel what the replica changed. Owned by the host; the replica must outlive it.
/// Usable from every thread. Everything throws `NSError` of `NSPOSIXErrorDomain`, with a text that
/// says what to do.
///
/// The process that has a mount must never use a path in it: it would wait for itself.
class Mount {
 public:
  /// `options.mountPoint` is resolved and looked at, and freed of a dead mount of ours.
  Mount(replica::Replica& replica, MountOptions options);
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;
  /// Ends the mount as `unmount(lazily)` does, and without waiting for those who have files open:
  /// they get errors from then on.
  ~Mount();

  /// Mounts, and returns when requests are answered. Called once. Takes the replica's observer.
  void start();

  /// Absolute, without symbolic links.
  const std::string& mountPoint() const;
  /// Of what was mounted: the number of the file system's device, as "0:47". Empty before `start`,
  /// and when the table of mounts does not tell it.
  const std::string& device() const;

  enum class Unmounting {
    /// Fails with EBUSY, naming the programs, when something is in use.
    whenFree,
    /// Takes the mount away from its place at once; what is open works until it is closed.
    lazily,
  };
  /// Does nothing when the mount has ended.
  void unmount(Unmounting how);

  /// Returns when the kernel has ended the mount, nothing is open any more and the replica has no
  /// observer. With a limit, false when it has not ended by then.
  bool waitUntilUnmounted(std::optional<std::chrono::milliseconds> limit = std::nullopt);

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace kestrowan::mount
