#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::minutes;

constexpr std::int64_t kLarge = (std::int64_t{1} << 30) + (std::int64_t{1} << 27);

/// What is discarded lies on this disk for a while, however large it is and what comes after it.
class DiscardedTest : public testing::Test {
 protected:
  DiscardedTest() {
    world.list("/");
    world.crashUnconnected();
  }

  void discard(std::string_view path, std::string_view begin, std::int64_t size) {
    const auto file = world.create(path);
    ReplicaWorld::writeTo(*file, begin);
    file->write([&](int fd) { return ::ftruncate(fd, size) == 0 ? 0 : errno; });
    EXPECT_EQ(world.replica().commands().discard(world.find(path)), 1u);
  }

  /// Whether a file of that size below the replica's directory begins so.
  bool isKept(std::string_view begin, std::int64_t size) const {
    for (const auto& entry : fs::recursive_directory_iterator(world.directory())) {
      if (!entry.is_regular_file() || static_cast<std::int64_t>(entry.file_size()) != size)
        continue;
      std::string found(begin.size(), '\0');
      std::ifstream(entry.path(), std::ios::binary)
          .read(found.data(), static_cast<std::streamsize>(found.size()));
      if (found == begin) return true;
    }
    return false;
  }

  ReplicaWorld world;
};

TEST_F(DiscardedTest, ALargeFileTakesNoSmallOneAway) {
  discard("/small", "a small one", 11);
  discard("/large", "a large one", kLarge);
  world.advance(minutes(5));
  EXPECT_TRUE(isKept("a small one", 11));
  EXPECT_TRUE(isKept("a large one", kLarge));
}

TEST_F(DiscardedTest, ASmallFileTakesNoLargeOneAway) {
  discard("/large", "a large one", kLarge);
  discard("/small", "a small one", 11);
  world.advance(minutes(5));
  EXPECT_TRUE(isKept("a large one", kLarge));
  EXPECT_TRUE(isKept("a small one", 11));
}

TEST_F(DiscardedTest, ManyFilesTakeNoneAway) {
  for (int number = 0; number < 8; ++number) {
    const auto name = std::to_string(number);
    discard("/" + name, "number " + name, kLarge / 4);
  }
  world.advance(minutes(5));
  for (int number = 0; number < 8; ++number) {
    EXPECT_TRUE(isKept("number " + std::to_string(number), kLarge / 4)) << number;
  }
}

TEST_F(DiscardedTest, AllIsThereAfterARestart) {
  discard("/small", "a small one", 11);
  discard("/large", "a large one", kLarge);
  world.crashUnconnected();
  world.advance(minutes(5));
  EXPECT_TRUE(isKept("a small one", 11));
  EXPECT_TRUE(isKept("a large one", kLarge));
}

}  // namespace
}  // namespace kestrowan::test
