#include "platform/base/Afterwards.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include "platform/base/Threads.h"

namespace kestrowan {

namespace {

struct Left {
  const void* owner;
  std::function<void()> work;
};

thread_local unsigned depth = 0;
thread_local std::vector<Left> left;

}  // namespace

Afterwards::Afterwards() {
  ++depth;
}

Afterwards::~Afterwards() {
  while (depth == 1 && !left.empty()) {
    const Left next = std::move(left.front());
    left.erase(left.begin());
    guarded("what was left for afterwards", next.work);
  }
  --depth;
}

bool Afterwards::leave(const void* owner, std::function<void()> work) {
  if (depth == 0) return false;
  try {
    left.push_back({owner, std::move(work)});
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool Afterwards::has(const void* owner) {
  return std::any_of(left.begin(), left.end(),
                     [owner](const Left& each) { return each.owner == owner; });
}

}  // namespace kestrowan
