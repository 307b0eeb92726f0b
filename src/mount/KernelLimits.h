#pragma once

#include <string>

namespace kestrowan::mount {

/// Throws `NSError` of `NSPOSIXErrorDomain`, with a text that says what to do, when the kernel is
/// set to end a mount because one answer takes its time: a program may wait here for as long as its
/// file is being fetched. `directory` is where the kernel shows its settings.
void checkKernelLimits(const std::string& directory = "/proc/sys/fs/fuse");

}  // namespace kestrowan::mount
