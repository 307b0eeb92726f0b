#pragma once

#include <csignal>
#include <cstddef>
#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// Keeps the process's memory, which holds a password, out of core files, which its children
/// inherit, and keeps other processes of the user from attaching to it, which they do not.
void protectMemory();

/// Makes every file that the process and its children make from now on the user's alone.
void makeFilesPrivate();

/// Makes the process's free memory go back to the system sooner. Before there are other threads.
void limitHeaps();

/// Raises the number of descriptors that the process may have as far as the system lets it, and
/// gives how many of them open files of programs may take. The rest is the host's own: database,
/// connections, transfers, commands, the kernel's pipes.
std::size_t raiseDescriptorLimit();

/// Ignores the signals whose cause is an error of a call as well (the limit of a file's size, a
/// reader that is gone), and those that end a process when they are sent by accident.
/// docs/THREADS.md has the list. Before there are other threads.
void ignoreHarmlessSignals();

/// Takes INT, TERM, HUP and QUIT from the process while it lives: they are read instead of ending
/// it. Made before the process has other threads, and outlives them.
class StopSignals {
 public:
  /// Throws `NSError` when the system has no descriptor left.
  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals();

  /// Readable when a signal has come.
  int descriptor() const { return file_.get(); }
  /// The number of one that has come; 0 when there is none.
  int take() const;

 private:
  sigset_t before_;
  UniqueFd file_;
};

/// Makes the file at `path` (mode 0600, appended to) the process's standard output and standard
/// error, and nothing its standard input. Throws `NSError` of `NSPOSIXErrorDomain`.
void logToFile(const std::string& path);

/// Puts the log at `path` aside, as "PATH.1", once it is larger than 4 MiB, and begins a new one.
/// Goes on with the old one when that fails.
void limitLogFile(const std::string& path);

}  // namespace kestrowan::host
