#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "replica/Caller.h"

namespace kestrowan::mount {

/// Tells programs that walk through all files from those that a user waits for. Immutable.
class ProgramKinds {
 public:
  /// What is known of the thread that makes a call; of one that cannot be looked at, nothing.
  struct Thread {
    /// The name of its executable, or where that cannot be read of its process: 15 bytes at most.
    std::string program;
    /// Its path among the control groups.
    std::string controlGroup;
    /// It runs, or reads, when nothing else does.
    bool isIdle = false;
  };

  /// `more`: patterns of names of further programs that work in the background.
  explicit ProgramKinds(std::vector<std::string> more = {});

  replica::ProgramKind kindOf(const Thread& thread) const;

  static Thread threadOf(pid_t number);
  /// The group's path in what "/proc/NUMBER/cgroup" says.
  static std::string controlGroupIn(std::string_view text);

 private:
  const std::vector<std::string> background_;
};

}  // namespace kestrowan::mount
