#pragma once

namespace kestrowan::host {

/// The command under which the program runs as the process that makes event calls. For the host
/// alone, which gives it one end of a socket of packets as its standard input.
inline constexpr const char* kEventCallsCommand = "internal-event-calls";

/// Makes the calls that are asked for by packets on standard input, and answers each with the
/// number of its error, or 0. Returns the exit code at the end of the input. It gives up beforehand
/// what it does not need: new programs, connections, and the right to gain rights.
int makeEventCalls() noexcept;

}  // namespace kestrowan::host
