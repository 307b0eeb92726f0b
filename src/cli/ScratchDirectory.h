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

 private:
  void watchSignals();
  void remove() const;

  std::string path_;
  sigset_t signals_;
  sigset_t signalsBefore_;
  UniqueFd signalled_;
  UniqueFd stop_;
  std::thread watcher_;
};

}  // namespace kestrowan::cli
