#include "host/EventCalls.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>

#include "host/EventMessage.h"
#include "mount/ExpectedCall.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

namespace {

using mount::EventKind;

constexpr std::size_t kLongestPacket = std::size_t{1} << 17;
constexpr rlim_t kDescriptors = 64;
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kModeBits = 07777;

/// Refuses these calls with EPERM from now on. What it cannot be, it is without.
void refuseCalls() {
  constexpr std::uint32_t kRefused[] = {SYS_socket, SYS_connect, SYS_execve, SYS_execveat,
                                        SYS_ptrace, SYS_setns,   SYS_unshare};
  std::array<sock_filter, 2 * std::size(kRefused) + 2> filter = {};
  std::size_t length = 0;
  filter[length++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
  for (const auto number : kRefused) {
    filter[length++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1);
    filter[length++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM);
  }
  filter[length++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  const sock_fprog program = {static_cast<unsigned short>(length), filter.data()};
  ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0);
}

void giveUpRights() {
  const rlimit none{0, 0};
  const rlimit few{kDescriptors, kDescriptors};
  ::setrlimit(RLIMIT_CORE, &none);
  ::setrlimit(RLIMIT_NOFILE, &few);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  refuseCalls();
}

/// Opens what lies directly in `folder` and on the same file system, to be named.
UniqueFd openIn(int folder, const char* name, std::uint64_t flags) {
  open_how how = {};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC | flags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS;
  return UniqueFd(static_cast<int>(::syscall(SYS_openat2, folder, name, &how, sizeof how)));
}

/// Asks nothing of the file system.
bool isOnDevice(int folder, const std::string& device) {
  struct statx status = {};
  if (::statx(folder, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, 0, &status) != 0) return false;
  return device ==
         std::to_string(status.stx_dev_major) + ":" + std::to_string(status.stx_dev_minor);
}

int touch(int folder, const std::string& name) {
  UniqueFd opened;
  if (!name.empty()) {
    opened = openIn(folder, name.c_str(), 0);
    if (!opened) return errno;
  }
  const int file = name.empty() ? folder : opened.get();
  struct stat status;
  if (::fstat(file, &status) != 0) return errno;
  const auto path = "/proc/self/fd/" + std::to_string(file);
  return ::chmod(path.c_str(), status.st_mode & kModeBits) == 0 ? 0 : errno;
}

int place(int root, int folder, const std::string& name) {
  const auto staging = openIn(root, mount::kStagingName, O_DIRECTORY);
  if (!staging) return errno;
  return ::renameat(staging.get(), mount::kPlaceholderName, folder, name.c_str()) == 0 ? 0 : errno;
}

int makeCallIn(const EventMessage& message, int root, int folder) {
  const char* const name = message.name.c_str();
  switch (message.kind) {
    case EventKind::placeFile:
      return place(root, folder, message.name);
    case EventKind::makeFolder:
      return ::mkdirat(folder, name, kFolderMode) == 0 ? 0 : errno;
    case EventKind::removeFile:
      return ::unlinkat(folder, name, 0) == 0 ? 0 : errno;
    case EventKind::removeFolder:
      return ::unlinkat(folder, name, AT_REMOVEDIR) == 0 ? 0 : errno;
    case EventKind::touch:
      return touch(folder, message.name);
  }
  return EINVAL;
}

/// Nothing of the mount stays open, so that it can be taken away.
int makeCall(const EventMessage& message) {
  const UniqueFd root(
      ::open(message.mountPoint.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!root) return errno;
  if (!isOnDevice(root.get(), message.device)) return EXDEV;
  UniqueFd folder;
  for (const auto& step : message.way) {
    auto next = openIn(folder ? folder.get() : root.get(), step.c_str(), O_DIRECTORY);
    if (!next) return errno;
    folder = std::move(next);
  }
  return makeCallIn(message, root.get(), folder ? folder.get() : root.get());
}

}  // namespace

int makeEventCalls() noexcept {
  try {
    giveUpRights();
    std::string buffer(kLongestPacket, '\0');
    for (;;) {
      const auto length = ::recv(STDIN_FILENO, buffer.data(), buffer.size(), 0);
      if (length < 0 && errno == EINTR) continue;
      if (length <= 0) return length == 0 ? 0 : 1;
      const auto message =
          EventMessage::parse(std::string_view(buffer.data(), static_cast<std::size_t>(length)));
      const std::int32_t error = message ? makeCall(*message) : EINVAL;
      if (::send(STDIN_FILENO, &error, sizeof error, MSG_NOSIGNAL) != sizeof error) return 1;
    }
  } catch (...) {
    return 1;
  }
}

}  // namespace kestrowan::host
