#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace kestrowan::host {

/// Whether a user sits at a desktop, as the login manager's notes on sessions tell it. Without a
/// login manager no user does. Free of state; usable from every thread.

/// By the note on one session: it is the user's, in the foreground, and has windows.
bool isActiveDesktop(std::string_view note, uid_t user);

/// By all notes in `directory`.
bool hasActiveDesktop(uid_t user, const std::string& directory = "/run/systemd/sessions");

}  // namespace kestrowan::host
