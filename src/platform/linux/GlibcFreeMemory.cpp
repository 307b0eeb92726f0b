#include <malloc.h>

#include "platform/base/FreeMemory.h"

namespace kestrowan {

void giveBackFreeMemory() noexcept {
  ::malloc_trim(0);
}

}  // namespace kestrowan
