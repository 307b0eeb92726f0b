#include "cli/Operands.h"

#include <algorithm>

namespace kestrowan::cli {

ExitCode forEach(const std::vector<std::string>& operands,
                 const std::function<ExitCode(const std::string& operand)>& action) {
  std::vector<ExitCode> codes;
  for (const auto& operand : operands) codes.push_back(action(operand));
  const auto isDone = [](ExitCode code) { return code == ExitCode::done; };
  const bool isMixed = std::any_of(codes.begin(), codes.end(), isDone) &&
                       !std::all_of(codes.begin(), codes.end(), isDone);
  if (codes.empty()) return ExitCode::done;
  return isMixed ? ExitCode::partlyFailed : codes.front();
}

}  // namespace kestrowan::cli
