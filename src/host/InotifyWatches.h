#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestrowan::host {

/// What programs watch by inotify, as the system's files about processes tell it. Free of state;
/// usable from every thread.

/// The device of a file system by its number in the table of mounts ("0:47"), in the form in which
/// the kernel writes it in "fdinfo"; 0 for a text that is none.
std::uint64_t kernelDevice(std::string_view number);

/// The numbers of the files and folders on `device` whose changes of names, of attributes or of
/// contents are watched, by what "fdinfo" tells of one descriptor. Lines that cannot be understood
/// are left out.
std::vector<std::uint64_t> watchedItems(std::string_view fdinfo, std::uint64_t device);

/// The same for all processes of `user` that can be looked at, each number once. `processes` is
/// where the system shows them.
std::vector<std::uint64_t> watchedItems(uid_t user, std::uint64_t device,
                                        const std::string& processes);

}  // namespace kestrowan::host
