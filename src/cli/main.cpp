#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>

#include "cli/CommandLine.h"
#include "cli/Variables.h"
#include "host/EventCalls.h"
#include "platform/base/Task.h"

namespace {

/// Gives every standard stream that is closed a descriptor that refuses its use, so that no file or
/// connection of the program is taken for it.
void openStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(stream, F_GETFD) != -1) continue;
    ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace

int main(int argc, char** argv) {
  constexpr std::chrono::milliseconds kLongestWait{500};
  if (argc == 2 && std::strcmp(argv[1], kestrowan::host::kEventCallsCommand) == 0) {
    return kestrowan::host::makeEventCalls();
  }
  openStandardStreams();
  // A reader that goes away is an error of the write, which says so, not a silent end.
  std::signal(SIGPIPE, SIG_IGN);
  // Before a library reads what is not meant for this program.
  kestrowan::cli::keepOwnVariables();
  const int code = kestrowan::cli::run(argc, argv);
  // Requests that nobody waits for any more must not run beneath the process's clean-up.
  if (!kestrowan::waitForDetachedTasks(kLongestWait)) ::_exit(code);
  return code;
}
