#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "unit/replica/plan/Renaming.h"

namespace kestrowan::test {

/// What some names of one letter each are used for in a world, in figures that do not change when
/// the names change places.
class NameUses {
 public:
  explicit NameUses(std::vector<std::string> names)
      : names_(std::move(names)), figures_(names_.size()) {}

  /// These names are in `text`, a name or a path, which is used for `use`.
  void add(std::string_view text, std::uint64_t use);
  /// The renamings after which the names are in the order of their figures. More than one where
  /// names have the same.
  std::vector<Renaming> inOrder() const;

 private:
  std::vector<std::string> names_;
  /// 0 for a name that is not used.
  std::vector<std::uint64_t> figures_;
};

}  // namespace kestrowan::test
