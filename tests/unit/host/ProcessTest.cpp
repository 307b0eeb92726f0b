#include "host/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
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
              for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
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

TEST(IgnoreHarmlessSignals, NoneOfThemEndsTheProcess) {
  EXPECT_EQ(inChild([] {
              ignoreHarmlessSignals();
              for (const int signal :
                   {SIGPIPE, SIGXFSZ, SIGXCPU, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGIO,
                    SIGPWR, SIGSTKFLT, SIGTTIN, SIGTTOU, SIGRTMIN, SIGRTMAX}) {
                ::raise(signal);
              }
              return 7;
            }),
            7);
}

/// How many open files programs may have in a process with such limits; 0 when the limit was not
/// raised as far as it may be.
int filesWith(rlim_t soft, rlim_t hard) {
  return inChild([&] {
    const rlimit limit{soft, hard};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    const auto count = raiseDescriptorLimit();
    rlimit now{};
    ::getrlimit(RLIMIT_NOFILE, &now);
    return now.rlim_cur == hard && count < 256 ? static_cast<int>(count) : 0;
  });
}

TEST(RaiseDescriptorLimit, LeavesTheHostItsOwnAndProgramsTheRest) {
  EXPECT_EQ(filesWith(100, 500), 500 - 256);
  EXPECT_EQ(filesWith(200, 200), 50);
  EXPECT_EQ(filesWith(64, 64), 16);
}

TEST(HostLog, ALineForWhichThereIsNoRoomIsDropped) {
  EXPECT_EQ(inChild([] {
              int ends[2];
              if (::pipe2(ends, O_NONBLOCK) != 0) return 1;
              while (::write(ends[1], "x", 1) == 1) {
              }
              // From here on a write would wait.
              if (::fcntl(ends[1], F_SETFL, 0) != 0 || ::dup2(ends[1], STDERR_FILENO) < 0) return 2;
              hostLog("nobody reads this");
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
