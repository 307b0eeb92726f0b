#pragma once

#include <string>

namespace kestrowan::host {

/// Which storage a state directory is for, as a small file "container" in it. Functions that fail
/// throw `NSError` of `NSPOSIXErrorDomain` with a text for a person. Usable from every thread.
struct StorageNote {
  enum class Kind {
    unused,   // there is no state yet
    unknown,  // there is a state, and no note that can be read
    known,
  };
  Kind kind = Kind::unused;
  /// The container's directory, absolute and without symbolic links; empty unless known.
  std::string container;
  /// The user moved the state to that container.
  bool moved = false;
};

/// What the state at `directory` (absolute) is for. Changes nothing. Throws EACCES and the like
/// when it cannot be looked into.
StorageNote storageNote(const std::string& directory);

/// Notes that the state at `directory` is for `container`; durable when it returns. After a death
/// of the program or the machine meanwhile the note before stands, or the new one.
void writeStorageNote(const std::string& directory, const std::string& container, bool moved);

/// Removes the note from a state that is removed.
void removeStorageNote(int directory);

}  // namespace kestrowan::host
