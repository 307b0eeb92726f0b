#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "replica/FileCalls.h"

namespace kestrowan::mount {

/// Empty files that only the mount has, in its root: indexers leave a folder alone that has one.
/// What the storage has under such a name is shown instead. Immutable, so usable from every thread.
class MarkerFiles {
 public:
  /// Without `isShown` there are none.
  explicit MarkerFiles(bool isShown) : isShown_(isShown) {}

  /// What is shown under a name that the storage does not have; absent when nothing is.
  std::optional<replica::Attributes> find(replica::Rid folder, std::string_view name) const;
  /// Of one of them, by its number.
  std::optional<replica::Attributes> attributes(replica::Rid item) const;
  /// The folder as it is shown.
  std::shared_ptr<const replica::FolderSnapshot> shown(
      replica::Rid folder, std::shared_ptr<const replica::FolderSnapshot> snapshot) const;

 private:
  const bool isShown_;
};

}  // namespace kestrowan::mount
