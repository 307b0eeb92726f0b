#pragma once

#include <string>

namespace kestrowan {

/// A fresh random (version 4) UUID as text: upper case, 8-4-4-4-12. Usable from every thread.
std::string newUUIDString();

}  // namespace kestrowan
