#include "cli/ScratchDirectory.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "cli/Console.h"
#include "mount/LocalFiles.h"
#include "platform/base/Threads.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan::cli {

ScratchDirectory::ScratchDirectory(const std::string& parent) {
  const std::string place =
      parent.empty() ? NSFileManager::defaultManager()->temporaryDirectory().path() : parent;
  path_ = place + "/.kestrowan-XXXXXX";
  if (::mkdtemp(path_.data()) == nullptr) throwUnwritable(place, errno);
  directory_.reset(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  // Others who may write in the same place could have exchanged it.
  if (!directory_ || ::fstat(directory_.get(), &status) != 0 || status.st_uid != ::geteuid()) {
    throwUnwritable(path_, EACCES);
  }
  ::setenv("TMPDIR", path_.c_str(), 1);

  sigemptyset(&signals_);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals_, signal);
  pthread_sigmask(SIG_BLOCK, &signals_, &signalsBefore_);
  signalled_.reset(::signalfd(-1, &signals_, SFD_CLOEXEC));
  stop_.reset(::eventfd(0, EFD_CLOEXEC));
  try {
    watcher_ = startThread("the watch for signals", [this] { watchSignals(); });
  } catch (const NSError&) {
    // Signals end the process as ever, and leave the directory.
    pthread_sigmask(SIG_SETMASK, &signalsBefore_, nullptr);
  }
}

ScratchDirectory::~ScratchDirectory() {
  const std::uint64_t one = 1;
  while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  if (watcher_.joinable()) watcher_.join();
  remove();
  pthread_sigmask(SIG_SETMASK, &signalsBefore_, nullptr);
}

void ScratchDirectory::watchSignals() {
  std::array<pollfd, 2> awaited = {{{signalled_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
  while (::poll(awaited.data(), awaited.size(), -1) < 0 && errno == EINTR) {
  }
  signalfd_siginfo caught;
  if ((awaited[0].revents & POLLIN) == 0 ||
      ::read(signalled_.get(), &caught, sizeof caught) != sizeof caught) {
    return;
  }
  remove();
  // Ends the process as the signal would have done.
  std::signal(static_cast<int>(caught.ssi_signo), SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
  std::raise(static_cast<int>(caught.ssi_signo));
}

UniqueFd ScratchDirectory::open(const std::string& name) const {
  UniqueFd file(::openat(directory_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file) throwUnwritable(path_ + "/" + name, errno);
  return file;
}

/// It holds files only.
void ScratchDirectory::remove() const {
  for (const auto& name : namesIn(path_)) {
    ::unlinkat(directory_.get(), name.c_str(), 0);
  }
  ::rmdir(path_.c_str());
}

}  // namespace kestrowan::cli
