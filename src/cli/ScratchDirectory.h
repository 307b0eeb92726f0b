#pragma once

#include <csignal>
#include <string>
#include <thread>

#include "platform/base/UniqueFd.h"

namespace kestrowan::cli {

/// A private directory that is the process's temporary directory while it lives, and is removed
/// with all that is in it by its owner, and also when a signal (INT, TERM or HUP) ends the process.
/// One at a time, made before the process has other threads.
class ScratchDirectory {
 public:
  /// Makes it in `parent`, or where temporary files go when that is empty. Throws
  /// `OutputUnwritable`.
  explicit ScratchDirectory(const std::string& parent);
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory();

  /// The directory itself, wherever its name may lead by now.
  int descriptor() const { return directory_.get(); }
  /// Opens the file `name` in it to read. Throws `OutputUnwritable`.
  UniqueFd open(const std::string& name) const;

 private:
  void watchSignals();
  void remove() const;

  std::string path_;
  UniqueFd directory_;
  sigset_t signals_;
  sigset_t signalsBefore_;
  UniqueFd signalled_;
  UniqueFd stop_;
  std::thread watcher_;
};

}  // namespace kestrowan::cli
