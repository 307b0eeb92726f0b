#include "host/HostEvents.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <thread>

#include "mount/DescribedError.h"

namespace kestrowan::host {
namespace {

using namespace std::chrono_literals;

TEST(HostEvents, SignalsAreCounted) {
  HostEvents events;
  EXPECT_EQ(events.signals(), 0U);
  ::raise(SIGTERM);
  events.wait(1h);
  EXPECT_EQ(events.signals(), 1U);
  ::raise(SIGINT);
  events.wait(1h);
  EXPECT_EQ(events.signals(), 2U);
}

TEST(HostEvents, TheEndOfTheMountEndsAWait) {
  HostEvents events;
  std::thread other([&] { events.setMountEnded(); });
  while (!events.mountEnded()) events.wait(1h);
  other.join();
}

TEST(HostEvents, ARequestIsTakenAndAnswered) {
  HostEvents events;
  auto left = events.postUnmountRequest(true);
  events.wait(1h);
  EXPECT_TRUE(events.forceIsWanted());
  auto request = events.takeUnmountRequest();
  ASSERT_TRUE(request);
  EXPECT_TRUE(request->force);
  EXPECT_FALSE(events.forceIsWanted());
  EXPECT_FALSE(events.takeUnmountRequest());
  request->left.set_value(4);
  EXPECT_EQ(left.get(), 4);
}

TEST(HostEvents, ARequestMayBeRefused) {
  HostEvents events;
  auto left = events.postUnmountRequest(false);
  EXPECT_FALSE(events.forceIsWanted());
  events.takeUnmountRequest()->left.set_exception(
      std::make_exception_ptr(describedError(EBUSY, "in use")));
  EXPECT_THROW(left.get(), NSError);
}

TEST(HostEvents, RequestsThatWaitAreRefusedButNotThoseByForce) {
  HostEvents events;
  auto gentle = events.postUnmountRequest(false);
  auto forced = events.postUnmountRequest(true);
  auto second = events.postUnmountRequest(false);
  events.refuseRequests(std::make_exception_ptr(describedError(EBUSY, "in use")));
  EXPECT_THROW(gentle.get(), NSError);
  EXPECT_THROW(second.get(), NSError);
  EXPECT_TRUE(events.forceIsWanted());
  events.answerRequests(3);
  EXPECT_EQ(forced.get(), 3);
}

TEST(HostEvents, WhoAsksInTheEndIsToldWhatIsLeft) {
  HostEvents events;
  auto before = events.postUnmountRequest(false);
  events.answerRequests(2);
  auto after = events.postUnmountRequest(true);
  EXPECT_EQ(before.get(), 2);
  EXPECT_EQ(after.get(), 2);
}

}  // namespace
}  // namespace kestrowan::host
