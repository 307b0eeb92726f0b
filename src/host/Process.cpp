#include "host/Process.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/HostLog.h"
#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

constexpr mode_t kNothingForOthers = S_IRWXG | S_IRWXO;
/// What the host needs at most: 80 for commands, 32 for the pipes of the FUSE workers, 16 for the
/// connections of two sessions, 16 for transfers, and a few for each of its other parts.
constexpr rlim_t kOwnDescriptors = 256;
/// Where the system sets no limit.
constexpr rlim_t kMostDescriptors = rlim_t{1} << 20;
constexpr std::size_t kFewestForPrograms = 8;
constexpr off_t kLargestLog = 4 << 20;  // bytes
/// From this size on an allocation has pages of its own; larger than any buffer of a request.
constexpr int kOwnPages = 512 << 10;  // bytes

}  // namespace

void protectMemory() {
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void makeFilesPrivate() {
  ::umask(kNothingForOthers);
}

void limitHeaps() {
  // One heap for each of the many threads keeps free memory apart in all of them.
  ::mallopt(M_ARENA_MAX, 2);
  // What a large listing takes goes back to the system with it. Otherwise the limit above which an
  // allocation has pages of its own grows with the largest one that was ever freed.
  ::mallopt(M_MMAP_THRESHOLD, kOwnPages);
  ::mallopt(M_TRIM_THRESHOLD, 2 * kOwnPages);
}

std::size_t raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return kFewestForPrograms;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  // Whatever came of that.
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t all = std::min<rlim_t>(limit.rlim_cur, kMostDescriptors);
  const rlim_t own = std::min(kOwnDescriptors, all / 4 * 3);
  return std::max<std::size_t>(all - own, kFewestForPrograms);
}

void ignoreHarmlessSignals() {
  for (const int signal : {SIGPIPE, SIGXFSZ, SIGXCPU, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF,
                           SIGIO, SIGPWR, SIGSTKFLT, SIGTTIN, SIGTTOU}) {
    std::signal(signal, SIG_IGN);
  }
  for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) std::signal(signal, SIG_IGN);
}

StopSignals::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, &before_);
  file_.reset(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!file_) {
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    throw systemError(error, "signals");
  }
}

StopSignals::~StopSignals() {
  // What came late must not end the process beneath its clean-up.
  while (take() != 0) {
  }
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

int StopSignals::take() const {
  signalfd_siginfo caught;
  if (::read(file_.get(), &caught, sizeof caught) != sizeof caught) return 0;
  return static_cast<int>(caught.ssi_signo);
}

void logToFile(const std::string& path) {
  const UniqueFd file(::open(path.c_str(),
                             O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY,
                             kPrivateFile));
  if (!file) throw systemError(errno, escapedForDisplay(path));
  const UniqueFd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (nothing) ::dup2(nothing.get(), STDIN_FILENO);
  ::dup2(file.get(), STDOUT_FILENO);
  ::dup2(file.get(), STDERR_FILENO);
}

void limitLogFile(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0 || status.st_size <= kLargestLog ||
      ::rename(path.c_str(), (path + ".1").c_str()) != 0) {
    return;
  }
  try {
    logToFile(path);
  } catch (const NSError& error) {
    hostLog(error.localizedDescription());
  }
}

}  // namespace kestrowan::host
