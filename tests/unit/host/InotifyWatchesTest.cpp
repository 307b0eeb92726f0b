#include "host/InotifyWatches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>

#include "platform/base/UniqueFd.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kDevice = 0x2f;

std::string line(const std::string& item, const std::string& device, const std::string& mask) {
  return "inotify wd:1 ino:" + item + " sdev:" + device + " mask:" + mask +
         " ignored_mask:0 fhandle-bytes:8 fhandle-type:1 f_handle:27b00800c7a55c79\n";
}

TEST(InotifyWatches, TheDeviceIsWrittenAsTheKernelDoes) {
  EXPECT_EQ(kernelDevice("0:47"), 47u);
  EXPECT_EQ(kernelDevice("8:1"), 0x800001u);
  EXPECT_EQ(kernelDevice("47"), 0u);
  EXPECT_EQ(kernelDevice("a:1"), 0u);
  EXPECT_EQ(kernelDevice("0:"), 0u);
  EXPECT_EQ(kernelDevice(""), 0u);
}

TEST(InotifyWatches, ItemsOfTheDeviceAreFoundAndNoOthers) {
  const std::string text = "pos:\t0\nflags:\t02004000\nmnt_id:\t16\nino:\t1063\n" +
                           line("2a", "2f", "800afce") + line("2b", "2e", "800afce") +
                           line("ffffffffffffffff", "2f", "100");
  EXPECT_THAT(watchedItems(text, kDevice), ElementsAre(0x2a, 0xffffffffffffffff));
}

TEST(InotifyWatches, WatchesThatNoChangeConcernsAreLeftOut) {
  EXPECT_THAT(watchedItems(line("2a", "2f", "20"), kDevice), IsEmpty()) << "IN_OPEN";
  EXPECT_THAT(watchedItems(line("2a", "2f", "4"), kDevice), ElementsAre(0x2a)) << "IN_ATTRIB";
}

TEST(InotifyWatches, LinesThatCannotBeUnderstoodAreLeftOut) {
  for (const char* text :
       {"", "\n\n", "inotify", "inotify wd:1 ino:2a", "inotify wd:1 ino: sdev:2f mask:100",
        "inotify wd:1 ino:2a sdev:2f", "inotify wd:1 ino:xyz sdev:2f mask:100",
        "inotify wd:1 ino:10000000000000000 sdev:2f mask:100", "fanotify ino:2a sdev:2f mask:100",
        "inotify wd:1 ino:2ag sdev:2f mask:100"}) {
    EXPECT_THAT(watchedItems(text, kDevice), IsEmpty()) << text;
  }
}

TEST(InotifyWatches, ALastLineWithoutItsEndCounts) {
  auto text = line("2a", "2f", "100");
  text.pop_back();
  EXPECT_THAT(watchedItems(text, kDevice), ElementsAre(0x2a));
}

TEST(InotifyWatches, AWatchOfThisProcessIsFound) {
  const test::TemporaryDirectory directory;
  struct stat status;
  ASSERT_EQ(::stat(directory.path().c_str(), &status), 0);
  const auto device = kernelDevice(std::to_string(major(status.st_dev)) + ":" +
                                   std::to_string(minor(status.st_dev)));
  const UniqueFd first(::inotify_init1(IN_CLOEXEC));
  const UniqueFd second(::inotify_init1(IN_CLOEXEC));
  for (const auto* file : {&first, &second}) {
    ASSERT_GE(::inotify_add_watch(file->get(), directory.path().c_str(), IN_CREATE), 0);
  }
  // Some file systems show one number to programs and have another.
  if (watchedItems(::geteuid(), device, "/proc").empty()) GTEST_SKIP() << "an overlay";
  EXPECT_THAT(watchedItems(::geteuid(), device, "/proc"),
              testing::Contains(status.st_ino).Times(1));
  EXPECT_THAT(watchedItems(::geteuid() + 1, device, "/proc"),
              testing::Not(testing::Contains(status.st_ino)));
}

}  // namespace
}  // namespace kestrowan::host
