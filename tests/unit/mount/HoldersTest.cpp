#include "mount/Holders.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "platform/base/UniqueFd.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::mount {
namespace {

/// A process that did something and then waits to be ended.
class Child {
 public:
  template <typename Action>
  explicit Child(Action action) {
    std::array<int, 2> ends = {};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    process_ = ::fork();
    if (process_ == 0) {
      action();
      [[maybe_unused]] const auto told = ::write(ends[1], "x", 1);
      ::pause();
      ::_exit(0);
    }
    ::close(ends[1]);
    char ready = 0;
    EXPECT_EQ(::read(ends[0], &ready, 1), 1);
    ::close(ends[0]);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }

  pid_t process() const { return process_; }

 private:
  pid_t process_ = -1;
};

class HoldersTest : public testing::Test {
 protected:
  /// What the process uses, as `holdersOf` has it; empty when it uses nothing.
  std::string usedBy(pid_t process) const {
    for (const auto& holder : holdersOf(directory_.path())) {
      if (holder.process == process) return holder.path;
    }
    return {};
  }

  test::TemporaryDirectory directory_;
};

TEST_F(HoldersTest, AWorkingDirectoryIsSeen) {
  const Child child([&] { ASSERT_EQ(::chdir(directory_.path().c_str()), 0); });
  EXPECT_EQ(usedBy(child.process()), directory_.path());
}

TEST_F(HoldersTest, AnOpenFileIsSeen) {
  const auto file = directory_.path() + "/file";
  const Child child([&] { ASSERT_GE(::open(file.c_str(), O_CREAT | O_RDWR, 0600), 0); });
  EXPECT_EQ(usedBy(child.process()), file);
}

TEST_F(HoldersTest, OthersAreNotNamed) {
  const Child child([] {});
  EXPECT_EQ(usedBy(child.process()), "");
}

TEST_F(HoldersTest, AFolderWithALongerNameIsAnotherFolder) {
  const test::TemporaryDirectory longer(directory_.path());
  const Child child([&] { ASSERT_EQ(::chdir(longer.path().c_str()), 0); });
  const auto shorter = longer.path().substr(0, longer.path().size() - 1);
  for (const auto& holder : holdersOf(shorter)) EXPECT_NE(holder.process, child.process());
}

TEST_F(HoldersTest, HoldersAreDescribed) {
  EXPECT_EQ(describe({}), "a program");
  EXPECT_EQ(describe({{12, "vim", "/mnt/a"}, {34, "bash", "/mnt"}}),
            "vim (12, /mnt/a), bash (34, /mnt)");
}

}  // namespace
}  // namespace kestrowan::mount
