#include "mount/CallingProgram.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace kestrowan::mount {
namespace {

std::string status(const std::string& own, const std::string& shared, const std::string& blocked,
                   const std::string& ignored, const std::string& caught) {
  return "Name:\tcp\nState:\tD (disk sleep)\nSigQ:\t1/95979\nSigPnd:\t" + own + "\nShdPnd:\t" +
         shared + "\nSigBlk:\t" + blocked + "\nSigIgn:\t" + ignored + "\nSigCgt:\t" + caught +
         "\nCapInh:\t0000000000000000\n";
}

constexpr const char* kNone = "0000000000000000";
constexpr const char* kKill = "0000000000000100";
constexpr const char* kInterrupt = "0000000000000002";
constexpr const char* kAlarm = "0000000000002000";
constexpr const char* kChild = "0000000000010000";
constexpr const char* kWindow = "0000000008000000";

TEST(CallingProgramTest, AKilledProgramIsDying) {
  EXPECT_TRUE(isDying(status(kKill, kNone, kNone, kNone, kNone)));
  EXPECT_TRUE(isDying(status(kNone, kKill, kNone, kNone, kNone)));
}

TEST(CallingProgramTest, ASignalThatIsCaughtIgnoredOrBlockedEndsNobody) {
  EXPECT_FALSE(isDying(status(kInterrupt, kNone, kNone, kNone, kInterrupt)));
  EXPECT_FALSE(isDying(status(kInterrupt, kNone, kNone, kInterrupt, kNone)));
  EXPECT_FALSE(isDying(status(kNone, kAlarm, kAlarm, kNone, kNone)));
  EXPECT_TRUE(isDying(status(kInterrupt, kNone, kNone, kNone, kAlarm)));
}

TEST(CallingProgramTest, SignalsThatAreHarmlessByThemselvesEndNobody) {
  EXPECT_FALSE(isDying(status(kChild, kWindow, kNone, kNone, kNone)));
}

TEST(CallingProgramTest, NoSignalEndsNobody) {
  EXPECT_FALSE(isDying(status(kNone, kNone, kNone, kNone, kNone)));
  EXPECT_FALSE(isDying(::gettid()));
}

TEST(CallingProgramTest, WhoCannotBeLookedAtCountsAsDying) {
  EXPECT_TRUE(isDying(0));
}

}  // namespace
}  // namespace kestrowan::mount
