#include "host/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "host/HostLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

/// Runs `body` in a process of its own and gives its exit code.
int inChild(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ProtectMemory, NoCoreIsWrittenAndNobodyCanAttach) {
  EXPECT_EQ(inChild([] {
              protectMemory();
              rlimit core{1, 1};
              ::getrlimit(RLIMIT_CORE, &core);
              const bool attachable = ::prctl(PR_GET_DUMPABLE) != 0;
              return core.rlim_cur == 0 && core.rlim_max == 0 && !attachable ? 0 : 1;
            }),
            0);
}

TEST(MakeFilesPrivate, NothingIsForOthers) {
  EXPECT_EQ(inChild([] {
              makeFilesPrivate();
              return ::umask(0) == 077 ? 0 : 1;
            }),
            0);
}

TEST(StopSignals, AreTakenInsteadOfEndingTheProcess) {
  EXPECT_EQ(inChild([] {
              const StopSignals signals;
              if (signals.take() != 0) return 1;
              for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
                ::raise(signal);
                if (signals.take() != signal) return 2;
              }
              return signals.take() == 0 ? 0 : 3;
            }),
            0);
}

TEST(StopSignals, OneThatCameLateIsDropped) {
  EXPECT_EQ(inChild([] {
              {
                const StopSignals signals;
                ::raise(SIGTERM);
              }
              return 7;
            }),
            7);
}

class LogFileTest : public testing::Test {
 protected:
  static std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  test::TemporaryDirectory directory_;
  const std::string path_ = directory_.path() + "/log";
};

TEST_F(LogFileTest, TakesStandardErrorAndIsForTheUserAlone) {
  std::ofstream(path_) << "before\n";
  std::filesystem::permissions(path_, std::filesystem::perms(0600));
  EXPECT_EQ(inChild([&] {
              logToFile(path_);
              hostLog("after");
              char byte;
              return ::read(STDIN_FILENO, &byte, 1) == 0 ? 0 : 1;
            }),
            0);
  EXPECT_EQ(read(path_), "before\nkestrowan: after\n");
}

TEST_F(LogFileTest, IsPutAsideWhenItIsLarge) {
  std::ofstream(path_) << std::string((4 << 20) + 1, 'x');
  EXPECT_EQ(inChild([&] {
              logToFile(path_);
              limitLogFile(path_);
              hostLog("new");
              limitLogFile(path_);
              return 0;
            }),
            0);
  EXPECT_EQ(read(path_), "kestrowan: new\n");
  EXPECT_EQ(read(path_ + ".1").size(), (4U << 20) + 1);
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

}  // namespace
}  // namespace kestrowan::host
