#include "platform/base/Fatal.h"

#include <cstdio>
#include <cstdlib>

namespace kestrowan {

void fatalError(std::string_view message) noexcept {
  std::fprintf(stderr, "fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
  std::abort();
}

}  // namespace kestrowan
