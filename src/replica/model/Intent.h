#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "replica/model/Numbers.h"
#include "replica/model/Path.h"

namespace kestrowan::replica::model {

/// What a request asks of the provider.
enum class Verb : std::uint8_t {
  put,         // the file at the target has these bytes
  makeFolder,  // there is a folder at the target
  move,        // what is at the source is at the target, with all that is in it
  remove,      // what is at the source is no more, nor what is in it
};

/// A request that was sent and whose answer is not known: what it would make true. Noted before it
/// is sent, and kept until it can no longer land; it outlives its item.
struct Intent {
  IntentNumber number = IntentNumber::none;
  Verb verb = Verb::put;
  /// The item it was made for, which may be no more; `none` when that was removed at the provider.
  ItemNumber item = ItemNumber::none;
  /// As they were sent; which of them there are, the verb says.
  std::optional<Path> source;
  std::optional<Path> target;
  /// The bytes of a put.
  Content content = Content::none;
  /// When waiting for the answer was given up; absent while the request is under way.
  std::optional<Time> ended;
  /// Until then it may land.
  Time until;
  /// A look that began after its end has been merged.
  bool looked = false;
  /// A look that began after `until` has been merged.
  bool over = false;

  bool isUnderWay() const { return !ended; }
  bool touches(const Path& path) const { return source == path || target == path; }
  /// The source and the target, as far as there are any.
  std::vector<Path> paths() const;

  friend bool operator==(const Intent&, const Intent&) = default;
};

}  // namespace kestrowan::replica::model
