#pragma once

#include <string>

namespace kestrowan::replica {

/// A file "in-use" in a replica's directory that names the machine's run, from its start to its
/// stop, in which the replica was used last. It becomes blank when everything is durable, so that
/// the next start knows whether what was written and never synced can still be trusted. Not
/// thread-safe. Throws `NSError` of `NSPOSIXErrorDomain`.
class UseMark {
 public:
  /// Reads the mark that is there.
  explicit UseMark(const std::string& directory);

  /// Whether the machine stopped while the replica was in use, or may have.
  bool machineStopped() const { return machineStopped_; }
  /// Marks the replica as used in this run; durable when it returns.
  void set() const;
  /// Only when everything is durable.
  void clear() const;

 private:
  void write(const std::string& text) const;

  const std::string directory_;
  const std::string path_;
  const std::string run_;
  bool machineStopped_ = false;
  /// The mark that was found is of this run.
  bool isSet_ = false;
};

}  // namespace kestrowan::replica
