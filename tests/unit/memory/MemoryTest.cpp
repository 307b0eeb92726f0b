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

/// What programs do, one thing after another; each may fail by itself. Gives the first error.
void work(ReplicaWorld& world, std::optional<std::string>& written) {
  errorIn([&] { world.list("/"); });
  errorIn([&] { world.read("/a"); });
  errorIn([&] { world.list("/folder"); });
  errorIn([&] { world.makeFolder("/made"); });
  errorIn([&] { world.rename("/b", "/folder/moved"); });
  errorIn([&] { world.replica().status(); });
  if (!errorIn([&] { world.write("/new", "contents"); })) written = "contents";
}

/// The process lives through the failure of each of its allocations, and works on.
TEST(MemoryTest, NoSingleAllocationThatFailsEndsTheReplicaOrStopsIt) {
  constexpr std::size_t kMost = 100000;
  // All of them take too long.
  constexpr std::size_t kStep = 7;
  std::size_t failures = 0;
  for (std::size_t number = 1; number < kMost; number += kStep) {
    ReplicaWorld world;
    for (const char* name : {"/a", "/b", "/c"}) world.server().writeFile(name, "12345");
    world.server().makeFolder("/folder");
    std::optional<std::string> written;
    bool happened = false;
    {
      const OneFailure failing(number);
      work(world, written);
      happened = failing.happened();
    }
    failures += happened ? 1 : 0;
    world.advance(minutes(20));
    const auto error = errorIn([&] {
      EXPECT_EQ(world.read("/a"), "12345") << number;
      world.write("/later", "later");
      EXPECT_TRUE(world.settle()) << number;
      world.advance(minutes(20));
      EXPECT_EQ(world.server().tree().at("/later"), "later") << number;
      if (written) {
        EXPECT_EQ(world.read("/new"), *written) << number;
      }
    });
    EXPECT_FALSE(error) << number << ": " << error->localizedDescription();
    if (!happened) break;
  }
  EXPECT_GT(failures, 10u);
}

}  // namespace
}  // namespace kestrowan::test
