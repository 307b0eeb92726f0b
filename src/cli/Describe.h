#pragma once

#include <CLI/CLI.hpp>

#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// Everything that help says of `app` and its commands, for the program that writes the manual and
/// the shells' completions: {name, version, summary, options, commands, exitCodes}.
JSONValue description(const CLI::App& app, const std::string& version);

}  // namespace kestrowan::cli
