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
  mountFailed = 6,       // the mount could not be made, or broke
  notMounted = 7,        // no mount is running there
  timedOut = 8,          // the time for waiting ran out
  busy = 9,              // the mount, or its state directory, is in use
  otherStorage = 10,     // the state was made for another container
};

struct ExitCodeText {
  ExitCode code;
  const char* text;
};

/// What help and manual say of each.
inline constexpr ExitCodeText kExitCodes[] = {
    {ExitCode::done, "done"},
    {ExitCode::requestFailed, "the request failed"},
    {ExitCode::usage, "wrong usage"},
    {ExitCode::notConfigured, "not configured"},
    {ExitCode::partlyFailed, "some of several failed"},
    {ExitCode::outputUnwritable, "standard output or a local file cannot be written"},
    {ExitCode::mountFailed, "the mount could not be made, or broke"},
    {ExitCode::notMounted, "no mount is running there"},
    {ExitCode::timedOut, "the time for waiting ran out"},
    {ExitCode::busy, "the mount, or its state directory, is in use"},
    {ExitCode::otherStorage, "the state was made for another container"},
};

}  // namespace kestrowan::cli
