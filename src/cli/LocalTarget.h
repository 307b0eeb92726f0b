#pragma once

#include <optional>
#include <string>

#include "mount/PathWalk.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::cli {

/// The place on this machine of a file that a command makes: a name in a folder, which stays open,
/// so that nothing can be exchanged between the look at it and the writing. A symbolic link is
/// never followed in a folder that others may write in. Devices, pipes and what a process has open
/// are written into, all else is replaced. Used from one thread. Throws `OutputUnwritable` with a
/// text that names the place.
class LocalTarget {
 public:
  /// What becomes of a symbolic link in the file's place.
  enum class Link { replaced, followed };

  /// `file`: what the user named; a folder, or a link to one, gets the file under `name`. Throws
  /// also when that folder is not there, or no file can be there, and `UsageError` for the name
  /// "/".
  LocalTarget(const std::string& file, const std::string& name, Link link);

  /// As the user is told of it.
  const std::string& path() const { return path_; }
  /// The path of the folder.
  const std::string& folder() const { return walk_->folderPath(); }
  /// Whether it is written into, and not replaced.
  bool isWrittenInto() const;

  /// Opens what is written into.
  UniqueFd open() const;
  /// Replaces what is there by the file `name` of the directory that is open as `directory`.
  void replaceBy(int directory, const std::string& name) const;

 private:
  void goTo(PathWalk::LastLink lastLink);
  bool leadsToFolder() const;
  void goThroughLink(Link link);
  void check() const;
  void checkEnd() const;

  std::string path_;
  std::optional<PathWalk> walk_;
};

}  // namespace kestrowan::cli
