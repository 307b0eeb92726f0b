#include "platform/base/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace kestrowan {
namespace {

UniqueFd opened() {
  return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

bool isOpen(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFdTest, DescriptorIsClosedWithItsOwner) {
  int number = -1;
  {
    const auto fd = opened();
    number = fd.get();
    EXPECT_TRUE(fd);
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(UniqueFdTest, MovingHandsTheDescriptorOver) {
  auto first = opened();
  const int number = first.get();
  UniqueFd second = std::move(first);
  EXPECT_EQ(second.get(), number);
  EXPECT_TRUE(isOpen(number));
}

TEST(UniqueFdTest, AssignmentClosesTheOldDescriptor) {
  auto first = opened();
  auto second = opened();
  const int old = first.get();
  const int kept = second.get();
  first = std::move(second);
  EXPECT_FALSE(isOpen(old));
  EXPECT_EQ(first.get(), kept);
}

TEST(UniqueFdTest, ResetClosesAndTakesAnother) {
  auto fd = opened();
  const int old = fd.get();
  fd.reset();
  EXPECT_FALSE(isOpen(old));
  EXPECT_FALSE(fd);
  EXPECT_EQ(fd.get(), -1);
}

}  // namespace
}  // namespace kestrowan
