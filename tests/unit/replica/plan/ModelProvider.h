#pragma once

#include <map>
#include <optional>
#include <vector>

#include "replica/model/Intent.h"
#include "replica/model/Item.h"
#include "replica/plan/Observing.h"

namespace kestrowan::test {

using namespace replica::model;

/// A provider that is a map. Identifiers are paths. A put makes or overwrites, a move never
/// overwrites, a removal takes all that is inside.
class ModelProvider {
 public:
  struct Entry {
    Kind kind = Kind::folder;
    /// 0 for a folder.
    unsigned version = 0;
    Content content = Content::none;
  };

  ModelProvider();

  /// False when it cannot be done; nothing has changed then.
  bool request(Verb verb, const std::optional<Path>& source, const std::optional<Path>& target,
               Content content);
  /// Absent when there is nothing, or nothing that is a folder.
  const Entry* at(const Path& path) const;
  std::optional<replica::plan::Listing> list(const Path& folder) const;
  /// The paths at and below this one.
  std::vector<Path> inside(const Path& path) const;

  static Version versionOf(const Entry& entry);

  std::map<Path, Entry> tree;
  unsigned lastVersion = 0;
};

}  // namespace kestrowan::test
