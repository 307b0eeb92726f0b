#include "platform/base/GrowingLimit.h"

#include <algorithm>

namespace kestrowan {

GrowingLimit::GrowingLimit(std::size_t usual, std::size_t most)
    : usual_(usual), most_(most), value_(usual) {}

void GrowingLimit::noteEnd(std::size_t running, std::size_t waiting) {
  if (waiting == 0) value_ = std::clamp(running, usual_, value_);
}

void GrowingLimit::grow(std::size_t waiting, Moment now) {
  if (now < growsAt()) return;
  value_ = std::min(most_, value_ + waiting);
}

}  // namespace kestrowan
