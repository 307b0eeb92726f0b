#include "cli/Confirmation.h"

#include <unistd.h>

#include <iostream>

#include "cli/Console.h"
#include "cli/ServerPath.h"

namespace kestrowan::cli {

bool confirmedOnTerminal(const std::string& question, const std::string& without) {
  if (::isatty(STDIN_FILENO) != 1 || !standardErrorIsTerminal()) throw UsageError(without);
  std::cerr << question << " [y/N] " << std::flush;
  std::string line;
  std::getline(std::cin, line);
  return line == "y" || line == "Y" || line == "yes";
}

}  // namespace kestrowan::cli
