#include "mount/ProgramKinds.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace kestrowan::mount {
namespace {

using replica::ProgramKind;

constexpr const char* kSession = "/user.slice/user-1000.slice/user@1000.service";

ProgramKind kindOf(const std::string& program) {
  return ProgramKinds().kindOf({program, std::string(kSession) + "/app.slice", false});
}

TEST(ProgramKindsTest, IndexersScannersAndListersWorkInTheBackground) {
  for (const auto* program : {"updatedb", "updatedb.plocate", "clamscan", "clamd",
                              "tracker-extract-3", "tracker-miner-fs-3", "localsearch-3",
                              "baloo_file", "baloo_file_extractor", "recollindex"}) {
    EXPECT_EQ(kindOf(program), ProgramKind::background) << program;
  }
}

TEST(ProgramKindsTest, ThumbnailersAreKnownByTheirNames) {
  for (const auto* program :
       {"tumblerd", "gdk-pixbuf-thumbnailer", "totem-video-thumbnailer", "ffmpegthumbnailer"}) {
    EXPECT_EQ(kindOf(program), ProgramKind::thumbnailer) << program;
    EXPECT_EQ(ProgramKinds().kindOf({program, "", true}), ProgramKind::thumbnailer) << program;
  }
}

/// These copy files out.
TEST(ProgramKindsTest, FileManagersAndTheirHelpersAreOrdinary) {
  for (const auto* program :
       {"Thunar", "thunar", "nautilus", "pcmanfm", "pcmanfm-qt", "dolphin", "nemo", "caja",
        "kioslave5", "kioworker", "gvfsd", "cp", "rsync", "tar", "cat", "tracker", ""}) {
    EXPECT_EQ(kindOf(program), ProgramKind::ordinary) << program;
  }
}

TEST(ProgramKindsTest, AUserNamesMore) {
  const ProgramKinds kinds({"my-indexer", "scan*"});
  EXPECT_EQ(kinds.kindOf({"my-indexer", "", false}), ProgramKind::background);
  EXPECT_EQ(kinds.kindOf({"scanner", "", false}), ProgramKind::background);
  EXPECT_EQ(kinds.kindOf({"updatedb", "", false}), ProgramKind::background);
  EXPECT_EQ(kinds.kindOf({"my-indexer2", "", false}), ProgramKind::ordinary);
}

TEST(ProgramKindsTest, WhatRunsOnlyWhenNothingElseDoesWorksInTheBackground) {
  EXPECT_EQ(ProgramKinds().kindOf({"cat", "", true}), ProgramKind::background);
}

TEST(ProgramKindsTest, TheBackgroundSliceIsAWholePartOfTheGroup) {
  const auto of = [](const std::string& group) {
    return ProgramKinds().kindOf({"cat", group, false});
  };
  EXPECT_EQ(of(std::string(kSession) + "/background.slice/x.service"), ProgramKind::background);
  EXPECT_EQ(of("/background.slice"), ProgramKind::background);
  EXPECT_EQ(of("/not-background.slice/x"), ProgramKind::ordinary);
  EXPECT_EQ(of("/background.slice.d/x"), ProgramKind::ordinary);
  EXPECT_EQ(of("/"), ProgramKind::ordinary);
  EXPECT_EQ(of(""), ProgramKind::ordinary);
}

TEST(ProgramKindsTest, TheGroupIsThatOfTheUnifiedHierarchy) {
  EXPECT_EQ(ProgramKinds::controlGroupIn("0::/user.slice/a b\n"), "/user.slice/a b");
  EXPECT_EQ(ProgramKinds::controlGroupIn("12:cpu:/x\n1:name=systemd:/y\n0::/z\n"), "/z");
  EXPECT_EQ(ProgramKinds::controlGroupIn("0::/last"), "/last");
  EXPECT_EQ(ProgramKinds::controlGroupIn("10::/x\n"), "");
  EXPECT_EQ(ProgramKinds::controlGroupIn(""), "");
}

TEST(ProgramKindsTest, AThreadIsLookedAtAsItIs) {
  const auto thread = ProgramKinds::threadOf(::gettid());
  EXPECT_EQ(thread.program, "mount_test");
  EXPECT_FALSE(thread.isIdle);
}

TEST(ProgramKindsTest, AThreadThatCannotBeLookedAtIsOrdinary) {
  for (const pid_t number : {0, -1, 0x7fffffff}) {
    EXPECT_EQ(ProgramKinds().kindOf(ProgramKinds::threadOf(number)), ProgramKind::ordinary);
  }
}

TEST(ProgramKindsTest, TheSchedulingPolicyIsTheThreadsOwn) {
  bool isIdle = false;
  std::thread([&] {
    const sched_param none = {};
    ASSERT_EQ(::sched_setscheduler(0, SCHED_IDLE, &none), 0);
    isIdle = ProgramKinds::threadOf(::gettid()).isIdle;
  }).join();
  EXPECT_TRUE(isIdle);
  EXPECT_FALSE(ProgramKinds::threadOf(::gettid()).isIdle);
}

TEST(ProgramKindsTest, ThePriorityOfReadingIsTheThreadsOwn) {
  bool isIdle = false;
  std::thread([&] {
    ASSERT_EQ(::syscall(SYS_ioprio_set, 1, 0, 3 << 13), 0);
    isIdle = ProgramKinds::threadOf(::gettid()).isIdle;
  }).join();
  EXPECT_TRUE(isIdle);
  EXPECT_FALSE(ProgramKinds::threadOf(::gettid()).isIdle);
}

}  // namespace
}  // namespace kestrowan::mount
