#include "cli/Background.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "cli/Console.h"

namespace kestrowan::cli {

namespace {

ExitCode awaitReadiness(int fromChild, pid_t child) {
  char word = 0;
  ssize_t count;
  do {
    count = ::read(fromChild, &word, 1);
  } while (count < 0 && errno == EINTR);
  if (count == 1) return ExitCode::done;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  const bool failed = WIFEXITED(status) && WEXITSTATUS(status) != 0;
  return failed ? static_cast<ExitCode>(WEXITSTATUS(status)) : ExitCode::mountFailed;
}

}  // namespace

std::optional<ExitCode> Background::divide() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    complain("background: " + std::generic_category().message(errno));
    return ExitCode::mountFailed;
  }
  const UniqueFd fromChild(ends[0]);
  toParent_.reset(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) {
    complain("background: " + std::generic_category().message(errno));
    return ExitCode::mountFailed;
  }
  if (child > 0) {
    toParent_.reset();
    return awaitReadiness(fromChild.get(), child);
  }
  ::setsid();
  // Keeps no directory in use that somebody may want to unmount. "/" can always be entered.
  if (::chdir("/") != 0) return ExitCode::mountFailed;
  return std::nullopt;
}

bool Background::ready() {
  const char word = 1;
  const bool heard = ::write(toParent_.get(), &word, 1) == 1;
  toParent_.reset();
  return heard;
}

}  // namespace kestrowan::cli
