#pragma once

namespace kestrowan::cli {

/// Removes every environment variable that this program does not read itself, so that none steers
/// a library (another configuration, modules, certificates, data files, places for secrets) or a
/// program that is started later. Called once, before there are threads.
void keepOwnVariables();

}  // namespace kestrowan::cli
