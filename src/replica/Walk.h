#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "replica/Records.h"

namespace kestrowan::replica {

struct Item;

/// A program that goes through a folder: it opens the files of it, or lists the folders in it, one
/// soon after another. Says what it will come to next. Guarded by the core's lock.
class Walk {
 public:
  using Items = std::vector<std::shared_ptr<Item>>;

  /// The item is being opened at `now`, milliseconds since 1970-01-01 UTC; `isHere` when nothing
  /// has to be asked for. Whether that is a further step of a walk.
  bool goesTo(const Item& item, bool isHere, std::int64_t now);

  /// The next `count` items behind `item`, at most, in the order of their names: those of
  /// `children`, which is called once in a walk, that `isWanted` was true for then.
  std::vector<Rid> next(const Item& item, std::size_t count, const std::function<Items()>& children,
                        bool (*isWanted)(const Item&));

 private:
  std::int64_t at_ = 0;
  Rid last_ = 0;
  unsigned opened_ = 0;
  bool looked_ = false;
  /// What it has not come to yet, the next one last.
  std::vector<Rid> ahead_;
};

}  // namespace kestrowan::replica
