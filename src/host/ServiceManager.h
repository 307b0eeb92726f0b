#pragma once

#include <string_view>

namespace kestrowan::host {

/// Tells the service manager that started this process how it goes: sends `state` ("READY=1",
/// "STOPPING=1", "STATUS=…" and such, one a line) to the datagram socket that $NOTIFY_SOCKET names,
/// an abstract one when the name begins with "@". Without one, and when it cannot be reached, does
/// nothing; whether it was sent. From every thread.
bool tellServiceManager(std::string_view state);

}  // namespace kestrowan::host
