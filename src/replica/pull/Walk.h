#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "async/Loop.h"
#include "replica/model/Numbers.h"

namespace kestrowan::replica::pull {

/// A program that goes through a folder: it opens the files of it, or lists the folders in it, one
/// soon after another. Says what it will come to next. Not thread-safe.
class Walk {
 public:
  using Items = std::vector<model::ItemNumber>;

  /// The item is being opened at `now`; `isHere` when nothing has to be asked for. Whether that is
  /// a further step of a walk.
  bool goesTo(model::ItemNumber item, bool isHere, async::Loop::Moment now);

  /// The next `count` items behind `item`, at most, of those that `behind` gave in the order of
  /// their names. It is called once in a walk.
  Items next(model::ItemNumber item, std::size_t count, const std::function<Items()>& behind);

 private:
  std::optional<async::Loop::Moment> at_;
  model::ItemNumber last_ = model::ItemNumber::none;
  unsigned opened_ = 0;
  bool hasLooked_ = false;
  /// What it has not come to yet, the next one last.
  Items ahead_;
};

}  // namespace kestrowan::replica::pull
