#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/ControlWorkers.h"
#include "host/Registry.h"
#include "platform/foundation/JSONValue.h"
#include "replica/Replica.h"

namespace kestrowan::host {

/// The requests of the control socket. Each is an object whose "request" says what is wanted; paths
/// begin at the root of the mount.
///
///     status               limit? (pending items)
///       gives domain, mountPoint, stateDirectory, container, process, started, state, warnings,
///       events ("on", "off" or "failing"), transfers, and what `statusForm` says
///     wait                 limit? (milliseconds, at most 60,000; 0 asks how things stand)
///       gives synced, pending, refused (of those), offline, held
///     evict                path
///       gives evicted, bytes, changed, open, pinned
///     pin, unpin           path
///       gives files, missing (those of them that are not here yet)
///     retry                path
///     discard              path, confirm (true)
///       gives discarded
///     resolve              path, keep ("mine", "theirs" or "both")
///       gives path, of what stays
///     history              path?, limit?
///       gives files, bytes, entries: of the latest, the latest first, id, path?, reason, at,
///       modified, size, confirmed ("never", "once" or "notSent")
///     restore              id, path?: a folder, or the file; where it was when left out
///       gives path
///     clearHistory         path?, olderThan? (seconds), confirm (true)
///       gives cleared, bytes
///     unmount              force?
///       gives left (changes that were not sent)
///
/// Usable from every thread; the replica and the functions must outlive it. Blocks; answers never
/// hold contents or credentials.
class HostCommands {
 public:
  struct Context {
    HostEntry host;
    /// Seconds since 1970-01-01 UTC.
    std::int64_t started = 0;
    /// The replica's, in words for a person.
    std::function<replica::Status()> status;
    /// What needs the user's attention, in words.
    std::function<std::vector<std::string>()> warnings;
    /// Whether watchers are told of changes at the server: "on", "off" or "failing".
    std::function<std::string()> events;
    std::function<bool()> isStopping;
    /// Ends the mount, and gives how many changes have not been sent. Throws `NSError`.
    std::function<std::int64_t(bool force)> unmount;
  };

  HostCommands(replica::Replica& replica, Context context);

  /// Throws `NSError` with a text for a person.
  JSONValue answer(const JSONValue& request) const;
  /// Which places of the control socket a request takes.
  static ControlLane lane(const JSONValue& request);

 private:
  using Answer = JSONValue (HostCommands::*)(const JSONValue& request) const;

  JSONValue status(const JSONValue& request) const;
  JSONValue wait(const JSONValue& request) const;
  JSONValue evict(const JSONValue& request) const;
  JSONValue pin(const JSONValue& request) const;
  JSONValue unpin(const JSONValue& request) const;
  JSONValue retry(const JSONValue& request) const;
  JSONValue discard(const JSONValue& request) const;
  JSONValue resolve(const JSONValue& request) const;
  JSONValue history(const JSONValue& request) const;
  JSONValue restore(const JSONValue& request) const;
  JSONValue clearHistory(const JSONValue& request) const;
  JSONValue unmount(const JSONValue& request) const;
  JSONValue setPinned(const JSONValue& request, bool pinned) const;
  replica::Rid item(const JSONValue& request) const;

  replica::Replica& replica_;
  const Context context_;
};

}  // namespace kestrowan::host
