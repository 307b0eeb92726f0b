#include "host/Process.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "host/HostLog.h"
#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

constexpr mode_t kNothingForOthers = S_IRWXG | S_IRWXO;
constexpr off_t kLargestLog = 4 << 20;  // bytes

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
}

StopSignals::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
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
