#pragma once

namespace kestrowan {

/// Gives pages that the heap has no use for back to the system. To be called after work that took
/// much memory for a while. Takes some milliseconds for each 100 MiB, in which allocations of other
/// threads may have to wait. Usable from every thread.
void giveBackFreeMemory() noexcept;

}  // namespace kestrowan
