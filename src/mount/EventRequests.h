#pragma once

#include <cstdint>

#include "mount/Fuse.h"

namespace kestrowan::mount {

/// The requests of the process that makes event calls. Those that belong to the call that is
/// expected of it are answered at once, and change nothing; all others are EPERM. None of these
/// functions waits.

/// Whether the request is one of that process's.
bool isEventRequest(fuse_req_t request) noexcept;

void refuseEventRequest(fuse_req_t request) noexcept;
void answerEventLookup(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept;
void answerEventAttributes(fuse_req_t request, fuse_ino_t item) noexcept;
void answerEventTouch(fuse_req_t request, fuse_ino_t item, int which) noexcept;
void answerEventFolder(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept;
enum class EventRemoval : std::uint8_t { file, folder };
void answerEventRemoval(fuse_req_t request, fuse_ino_t folder, const char* name,
                        EventRemoval removal) noexcept;
void answerEventRename(fuse_req_t request, fuse_ino_t folder, const char* name,
                       fuse_ino_t newFolder, const char* newName) noexcept;

}  // namespace kestrowan::mount
