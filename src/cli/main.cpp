#include <csignal>
#include <cstdlib>

#include "cli/CommandLine.h"

int main(int argc, char** argv) {
  // A reader that goes away is an error of the write, which says so, not a silent end.
  std::signal(SIGPIPE, SIG_IGN);
  // TLS secrets are never written to a file, whatever the environment asks for.
  ::unsetenv("SSLKEYLOGFILE");
  return kestrowan::cli::run(argc, argv);
}
