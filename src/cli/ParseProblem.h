#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace kestrowan::cli {

/// What is wrong with a command line that `app` could not parse: the command, what it says, and
/// where help is. For a person.
std::string problemText(const CLI::App& app, const CLI::ParseError& problem);

/// Takes a SIZE such as 500M or 20G, of at least one byte, and makes it a number of bytes.
CLI::Validator sizeAboveZero();

/// The same; "off" becomes 0.
CLI::Validator sizeOrOff();

}  // namespace kestrowan::cli
