#pragma once

namespace kestrowan::cli {

/// How a command ends. Never renumbered.
enum class ExitCode : int {
  done = 0,
  requestFailed = 1,     // the server, the connection or the extension refused
  usage = 2,             // the command line is wrong
  notConfigured = 3,     // no usable bridge file
  partlyFailed = 4,      // some of several requests failed
  outputUnwritable = 5,  // standard output or a local file cannot be written
};

}  // namespace kestrowan::cli
