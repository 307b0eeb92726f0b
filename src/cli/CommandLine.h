#pragma once

namespace kestrowan::cli {

/// Reads the command line, carries the command out and gives the process's exit code.
int run(int argc, char** argv);

}  // namespace kestrowan::cli
