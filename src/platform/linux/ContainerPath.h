#pragma once

#include <string>
#include <string_view>

namespace kestrowan {

/// Where the container of the application group `group` is looked for, whether it is there or not:
/// the value of $KESTROWAN_CONTAINER, else `standardContainerPath`. Absolute; empty when the
/// environment names none. Creates nothing; usable from every thread that changes no variable.
std::string containerPath(std::string_view group);

/// The directory `group` in $XDG_DATA_HOME, else in ~/.local/share; empty without either.
std::string standardContainerPath(std::string_view group);

}  // namespace kestrowan
