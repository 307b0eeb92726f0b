#pragma once

#include <optional>
#include <string>

namespace kestrowan::cli {

/// Has the process use the bridge file as a mount does: one that others could have written is not
/// used, and the password does not leave the process's memory. Before every command that works on
/// an extension of its own.
void useBridge();

/// The container, used or not; absent when there is none.
std::optional<std::string> bridgeContainer();

/// Why there is no usable bridge file, with the place where it was looked for; absent when there is
/// one.
std::optional<std::string> bridgeProblem();

}  // namespace kestrowan::cli
