#pragma once

#include <string_view>

namespace kestrowan {

/// Ends the process after writing `message` to standard error. For broken programming contracts
/// only: nothing that comes from a file, a server or a user may lead here.
[[noreturn]] void fatalError(std::string_view message) noexcept;

}  // namespace kestrowan
