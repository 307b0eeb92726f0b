#pragma once

#include <map>
#include <optional>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "replica/plan/Observing.h"

namespace kestrowan::test {

using replica::model::Changes;
using replica::model::Content;
using replica::model::Edit;
using replica::model::Here;
using replica::model::Intent;
using replica::model::IntentNumber;
using replica::model::Item;
using replica::model::ItemNumber;
using replica::model::Journal;
using replica::model::Kind;
using replica::model::Path;
using replica::model::Place;
using replica::model::State;
using replica::model::There;
using replica::model::Time;
using replica::model::Tree;
using replica::model::Verb;
using replica::model::Version;
using replica::model::View;

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
