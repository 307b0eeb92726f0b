#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace kestrowan::mount {

/// A process that keeps a mount busy.
struct Holder {
  pid_t process = 0;
  std::string program;
  /// What it uses: an open or mapped file, or its working directory.
  std::string path;
};

/// Those that use something at or below `path`, as far as this user may see. Reads /proc alone, and
/// so touches no file system.
std::vector<Holder> holdersOf(const std::string& path);

/// "vim (1234, /mnt/a.txt), bash (99, /mnt)"; "a program" when there are none.
std::string describe(const std::vector<Holder>& holders);

}  // namespace kestrowan::mount
