#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/StorageNote.h"

namespace kestrowan::host {

/// Which domain a container has when the user names none. Containers are paths without symbolic
/// links. Functions that fail throw `NSError` of `NSPOSIXErrorDomain` with a text for a person.

/// `path` (absolute) without symbolic links, there or not, as containers are compared.
std::string withoutLinks(const std::string& path);

/// The container's directory, there or not: the one that $KESTROWAN_CONTAINER names, else the
/// standard one. Throws when the environment names neither.
std::string chosenContainer();

/// Whether it is the one that is used when $KESTROWAN_CONTAINER is unset.
bool isStandardContainer(const std::string& container);

/// The domain of the standard container, and of every one to earlier versions.
inline constexpr std::string_view kStandardDomain = "default";

/// "default" for the standard container; for another one the last part of its path, with "-" for
/// what a domain's name cannot have, and 8 hexadecimal digits that tell it from others of that
/// name. The same for the same path, always.
std::string ownDomain(const std::string& container);

/// The container's own domain, unless that has no state for this container and the user moved the
/// state of another one there. Throws EINVAL when several were moved there.
std::string domainOf(const std::string& container);

/// The domains that have a state in the usual place, sorted by name.
std::vector<std::pair<std::string, StorageNote>> domainsWithState();

/// The container's own domain, or one with a number behind it: the first that has no state, or
/// state for this container.
std::string freeDomain(const std::string& container);

}  // namespace kestrowan::host
