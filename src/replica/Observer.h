#pragma once

#include <optional>
#include <string>
#include <vector>

#include "replica/Records.h"

namespace kestrowan::replica {

/// One name of a folder: what it stood for, and what it stands for now.
struct NameChange {
  struct Shown {
    Rid item = 0;
    ItemKind kind = ItemKind::file;

    friend bool operator==(const Shown&, const Shown&) = default;
  };

  Rid folder = 0;
  std::string name;
  /// Absent when there was none.
  std::optional<Shown> before;
  /// Absent when there is none.
  std::optional<Shown> now;
  /// Of one that stands for the same item: it has other contents.
  bool hasOtherContents = false;

  friend bool operator==(const NameChange&, const NameChange&) = default;
};

/// Learns what changed without an application's doing, so that copies elsewhere can be dropped.
/// Called from every thread, with the replica's lock held: must return at once and must not call
/// the replica.
class Observer {
 public:
  virtual ~Observer() = default;

  /// The name now stands for another item, or for none.
  virtual void entryChanged(Rid folder, const std::string& name) = 0;
  /// Attributes of an item changed, and its contents when `contents` says so.
  virtual void itemChanged(Rid item, bool contents) = 0;
  /// What one change did, all at once, to the names of folders that programs watch: names that
  /// stand for something else, and those of items with other contents or attributes.
  virtual void watchedNamesChanged(const std::vector<NameChange>& /*changes*/) {}
};

}  // namespace kestrowan::replica
