#pragma once

namespace kestrowan::macos {

/// Puts the platform's log and file manager behind the module's, once for the process. To be called
/// before anything of the module is made; usable from every thread.
void setUpPlatform();

}  // namespace kestrowan::macos
