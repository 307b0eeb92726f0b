#pragma once

#include <stdexcept>
#include <string>

#include "host/HostSettings.h"
#include "host/Registry.h"

namespace kestrowan::host {

/// A domain's state is for one storage: what one server confirmed says nothing of another one, and
/// what was changed for one must not be sent to another. So the state knows the container that it
/// was made for, and is used with no other one unless the user says that the storage has moved.

/// The state was made for another storage, or it is not known for which. The text, of several lines
/// and safe to be shown, has what waits in the state and the commands that go on from here.
class StorageRefusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What a host with these settings makes known of itself, but for its socket and its process.
HostEntry entryOf(const HostSettings& settings);

/// Throws `StorageRefusal` when the state must not be used with the container, and for a container
/// that begins anew by itself while the state of an earlier version, which may be its own, keeps
/// what is nowhere else. Makes and changes nothing. Throws `NSError` when the state cannot be
/// looked into.
void requireOwnStorage(const HostSettings& settings);

/// The same for a state directory that this process holds; then notes the container, durably, where
/// that is not noted. Before the replica is opened, so that nothing is listed or sent earlier.
void bindStorage(const HostSettings& settings);

}  // namespace kestrowan::host
