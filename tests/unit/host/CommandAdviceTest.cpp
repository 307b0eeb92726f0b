#include "host/CommandAdvice.h"

#include <gtest/gtest.h>

#include "ScopedVariable.h"

namespace kestrowan::host {
namespace {

class CommandAdviceTest : public testing::Test {
 protected:
  const ScopedVariable state_{"XDG_STATE_HOME", "/state"};
  HostEntry host_{.domain = "work",
                  .mountPoint = "/mnt/x",
                  .stateDirectory = "/state/kestrowan/work",
                  .container = "/srv/work"};
};

TEST_F(CommandAdviceTest, AMountIsToldWhole) {
  EXPECT_EQ(mountCommand(host_), "kestrowan --container '/srv/work' mount --domain work '/mnt/x'");
  host_.stateDirectory = "/elsewhere/it's";
  host_.options = {"--background", "--cache-limit=7"};
  EXPECT_EQ(mountCommand(host_),
            "kestrowan --container '/srv/work' mount --domain work --state '/elsewhere/it'\\''s' "
            "--background --cache-limit=7 '/mnt/x'");
}

TEST_F(CommandAdviceTest, WhatAnEarlierVersionDidNotNoteIsLeftOut) {
  host_.container.clear();
  EXPECT_EQ(mountCommand(host_), "kestrowan mount --domain work '/mnt/x'");
}

TEST_F(CommandAdviceTest, NoWordOfAnEntryIsMoreThanAWord) {
  host_.domain = "a; rm -rf /";
  host_.options = {"$(id)"};
  EXPECT_EQ(mountCommand(host_),
            "kestrowan --container '/srv/work' mount --domain 'a; rm -rf /' --state "
            "'/state/kestrowan/work' '$(id)' '/mnt/x'");
  host_.mountPoint = "/a\nb";
  EXPECT_EQ(unmountCommand(host_), "kestrowan unmount $'/a\\x0Ab'");
  EXPECT_EQ(statusCommand(host_), "kestrowan status $'/a\\x0Ab'");
}

TEST_F(CommandAdviceTest, ADomainThatLooksLikeAnOptionIsTheOptionsValue) {
  host_.domain = "-x";
  host_.stateDirectory = "/state/kestrowan/-x";
  EXPECT_EQ(mountCommand(host_), "kestrowan --container '/srv/work' mount --domain=-x '/mnt/x'");
}

TEST_F(CommandAdviceTest, TheDoctorLooksAtTheContainerThatWasNamed) {
  {
    const ScopedVariable named("KESTROWAN_CONTAINER", std::nullopt);
    EXPECT_EQ(doctorCommand(), "kestrowan doctor");
  }
  const ScopedVariable named("KESTROWAN_CONTAINER", "/srv/work");
  EXPECT_EQ(doctorCommand(), "kestrowan --container '/srv/work' doctor");
}

}  // namespace
}  // namespace kestrowan::host
