#pragma once

#include <string_view>

#include <sys/types.h>

namespace kestrowan::mount {

/// Whether the thread of that number has a signal waiting that will end its process; true as well
/// for one that cannot be looked at.
bool isDying(pid_t thread) noexcept;

/// The same, from what "/proc/NUMBER/status" says of a thread.
bool isDying(std::string_view status) noexcept;

}  // namespace kestrowan::mount
