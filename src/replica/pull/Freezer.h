#pragma once

#include <cstdint>
#include <memory>

#include "replica/model/Numbers.h"

namespace kestrowan::replica::pull {

/// Contents that do not change while this lives: a program that writes meanwhile writes a copy.
struct Frozen {
  model::Content number = model::Content::none;
  /// In bytes.
  std::int64_t size = 0;
  std::shared_ptr<void> hold;
};

/// Holds the contents of files still while they are sent or compared.
class Freezer {
 public:
  virtual ~Freezer() = default;

  /// The contents that a file has here. Absent ones (`none`) for a file that is no more or has none
  /// here. Waits for a write that is under way; not within an edit. Throws `NSError` when the
  /// disk fails.
  virtual Frozen freeze(model::ItemNumber file) = 0;
};

}  // namespace kestrowan::replica::pull
