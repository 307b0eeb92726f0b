#pragma once

#include <functional>
#include <memory>

#include "host/HostSettings.h"

namespace kestrowan::host {

/// One domain's life: its state directory, the extension and the replica, the mount and the control
/// socket. One at a time in a process, made before the process has other threads: it takes the
/// signals INT, TERM, HUP and QUIT, the process's file manager and its log.
class Host {
 public:
  /// Takes the state directory, reads what it holds, and looks at the mount point, which is made
  /// when it is missing and freed of the mount of a host that died. Throws `NSError` with a text
  /// for a person: EBUSY when another host holds the directory or a mount is there, and what
  /// `StateDirectory`, `Replica` and `Mount` throw; `StorageRefusal` when the state was made for
  /// another container.
  explicit Host(HostSettings settings);
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  /// Ends the mount without waiting, should it still be there.
  ~Host();

  /// Mounts, and serves until a signal, a command or somebody else's hand ends the mount. `ready`
  /// is called once, when the mount answers and the server's root is known, or it is known that it
  /// cannot be had now; when it gives false, the host ends at once in order. Throws `NSError` when
  /// the mount cannot be made.
  ///
  /// A signal, and a request to unmount, first let changes be sent, for as long as the settings
  /// say. A mount that is in use then stays: a request fails; after a signal the host tries on
  /// until the mount is free, or a second signal has it taken away lazily.
  void run(const std::function<bool()>& ready);

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace kestrowan::host
