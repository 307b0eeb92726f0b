#include "cli/Variables.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace kestrowan::cli {

namespace {

/// A variable that the program begins to read belongs here.
constexpr std::array<std::string_view, 9> kOwn = {
    "HOME", "KESTROWAN_CONTAINER", "NOTIFY_SOCKET",   "PATH",          "TMPDIR",
    "TZ",   "XDG_DATA_HOME",       "XDG_RUNTIME_DIR", "XDG_STATE_HOME"};

}  // namespace

void keepOwnVariables() {
  std::vector<std::string> kept;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    const std::string_view text(*variable);
    const auto name = text.substr(0, text.find('='));
    if (std::find(kOwn.begin(), kOwn.end(), name) != kOwn.end()) kept.emplace_back(text);
  }
  ::clearenv();
  for (const auto& variable : kept) {
    const auto end = variable.find('=');
    if (end == std::string::npos) continue;
    // Of a name that is there twice, the first one counts.
    ::setenv(variable.substr(0, end).c_str(), variable.c_str() + end + 1, 0);
  }
}

}  // namespace kestrowan::cli
