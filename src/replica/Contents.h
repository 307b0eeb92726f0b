#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "platform/base/UniqueFd.h"
#include "replica/Records.h"

namespace kestrowan::replica {

/// The open file with one item's contents, shared by everybody who has the item open. The file
/// behind it is exchanged when it must not change any more, so the descriptor is used only under
/// `mutex`: shared to read and to write, exclusively to exchange it.
struct Contents {
  std::shared_mutex mutex;
  /// Held, before `mutex`, by whoever makes the file one that may be changed.
  std::mutex preparing;
  /// That of its descriptor among those of programs.
  std::shared_ptr<void> place;
  UniqueFd file;
  ContentNumber number = 0;
  /// How often the file has been frozen. Under `mutex`.
  std::uint64_t freezes = 0;
  /// Set while the file is being sent: whoever wants to write exchanges it for a copy first.
  std::atomic<bool> frozen = false;
  /// Whether it stands on disk that these contents are changed.
  std::atomic<bool> noted = false;
  /// Whether the version before the changes that are made now is kept, or cannot be.
  std::atomic<bool> versioned = false;
  /// Whether a program may have been promised that what is in it survives a power failure.
  std::atomic<bool> promised = false;
};

}  // namespace kestrowan::replica
