#pragma once

#include <string>

#include "host/Registry.h"

namespace kestrowan::host {

/// Commands that a person is advised to run: whole, quoted for a shell, and safe to be shown. They
/// mean the same from every directory and whatever the environment says of the container. Usable
/// from every thread.

/// Mounts what `host` serves, as it did: with its container (if that is known), its domain, its
/// state directory unless it is the domain's own, and its options.
std::string mountCommand(const HostEntry& host);

/// Ends its mount.
std::string unmountCommand(const HostEntry& host);

/// Asks it how things stand.
std::string statusCommand(const HostEntry& host);

/// Checks what this process's own command found wrong, with the container that it used.
std::string doctorCommand();

}  // namespace kestrowan::host
