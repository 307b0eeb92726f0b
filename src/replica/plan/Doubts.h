#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

#include "replica/model/Numbers.h"

namespace kestrowan::replica::plan {

/// How long after the first listing that lacks an item the second one must begin; the same for a
/// listing that lost suspiciously much.
inline constexpr std::chrono::seconds kSecondLook{2};
inline constexpr std::chrono::seconds kSuspicionTime{5};

/// What listings lacked that is not believed yet. Plain data, in memory alone: after a start each
/// thing is doubted anew.
struct Doubts {
  struct Suspicion {
    model::Time since;
    /// Of what the listing showed.
    std::uint64_t digest = 0;
  };

  /// Since when items are missing from the listings of their folders.
  std::map<model::ItemNumber, model::Time> missing;
  /// Folders whose listings lost suspiciously much.
  std::map<model::ItemNumber, Suspicion> suspected;

  /// From when on listings can settle one of these; absent when there are none.
  std::optional<model::Time> next() const;
};

}  // namespace kestrowan::replica::plan
