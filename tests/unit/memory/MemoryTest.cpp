#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "platform/foundation/CaughtError.h"
#include "support/FailingMemory.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::minutes;

/// Far more than a kibibyte, far less than the list of so many items.
constexpr std::size_t kLarge = 64 * 1024;
constexpr int kManyFiles = 5000;

/// The error of `call`, whatever kind of exception that is; nothing when it has none.
std::optional<NSError> errorIn(const std::function<void()>& call) {
  try {
    call();
    return std::nullopt;
  } catch (...) {
    return caughtError();
  }
}

TEST(MemoryTest, AListingForWhichThereIsNoMemoryIsAnErrorOfThatListing) {
  ReplicaWorld world;
  world.server().makeFolder("/large");
  world.server().writeFile("/small", "1");
  for (int i = 0; i < kManyFiles; ++i) {
    world.server().writeFile("/large/" + std::to_string(i), "x");
  }
  world.list("/");
  {
    const NoLargeMemory limited(kLarge);
    EXPECT_TRUE(errorIn([&] { world.list("/large"); }));
    EXPECT_EQ(world.read("/small"), "1");
    world.write("/small", "2");
    EXPECT_TRUE(world.settle());
  }
  world.advance(minutes(1));
  EXPECT_EQ(world.list("/large").size(), static_cast<std::size_t>(kManyFiles));
  EXPECT_EQ(world.server().tree().at("/small"), "2");
}

}  // namespace
}  // namespace kestrowan::test
