#pragma once

#include <CLI/CLI.hpp>
#include <functional>

#include "cli/ExitCode.h"
#include "cli/commands/Commands.h"

namespace kestrowan::cli {

/// Adds the commands of a mount to `app`. The one that is parsed is handed to `choose`; it runs
/// later. `options` must outlive it.
void addMountCommands(CLI::App& app, const GlobalOptions& options,
                      std::function<void(std::function<ExitCode()>)> choose);

}  // namespace kestrowan::cli
