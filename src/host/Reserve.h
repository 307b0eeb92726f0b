#pragma once

#include <string>

namespace kestrowan::host {

/// Room on a state directory's disk for the small files that a host makes when it begins: who it
/// is, and how its mount point was. A file holds it between two beginnings, so that a host can also
/// begin on a full disk. One thread at a time.
class Reserve {
 public:
  /// How much is held, in bytes.
  static constexpr long kSize = 256L * 1024;

  /// `directory` (absolute) is the host's own. Does nothing yet.
  explicit Reserve(const std::string& directory);
  Reserve(const Reserve&) = delete;
  Reserve& operator=(const Reserve&) = delete;
  /// Holds the room for the next host, as `hold` does.
  ~Reserve();

  /// Gives the room up; nothing when none is held.
  void giveUp();
  /// Takes the room unless it is held already, or the disk has none: then it can be tried again.
  void hold();

 private:
  const std::string path_;
};

}  // namespace kestrowan::host
