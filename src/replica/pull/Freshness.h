#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "async/Loop.h"
#include "replica/Options.h"
#include "replica/model/Item.h"

namespace kestrowan::replica::pull {

/// How far what is known of folders can be relied upon: when they were listed, how long that takes,
/// and what the last listing proves. All but the dates is forgotten with the process. Owned by the
/// refresher; usable from every thread; items are read under the tree's lock.
class Freshness {
 public:
  /// Both must outlive it.
  Freshness(const async::Loop& loop, const Options& options) : loop_(loop), options_(options) {}
  Freshness(const Freshness&) = delete;
  Freshness& operator=(const Freshness&) = delete;

  /// It was listed once, or only exists here.
  static bool isKnown(const model::Item& folder);
  /// Whether it was listed within that time, or within `leastPause`.
  bool isRecent(const model::Item& folder, std::chrono::milliseconds within) const;
  /// Whether what is known of it can be acted on at the provider: a listing of the last two
  /// seconds, or of twice the time that listing the folder takes.
  bool isCertain(const model::Item& folder) const;
  /// Whether its last listing proves nothing by what it lacks.
  bool isPartial(model::ItemNumber folder) const;
  /// Whether that may lack names that a file here can have.
  bool mayLackNames(model::ItemNumber folder) const;
  /// A folder that takes long to list is listed so much more rarely.
  std::chrono::milliseconds leastPause(model::ItemNumber folder) const;

  /// A listing took so long; `refused`: entries that were not admitted.
  void noteListing(model::ItemNumber folder, std::chrono::milliseconds duration,
                   std::size_t refused);
  /// Whether a listing came whole.
  struct Wholeness {
    /// The one before differed in that.
    bool isNews = false;
    /// How often in a row it did not.
    std::uint32_t partialListings = 0;
  };
  Wholeness noteWholeness(model::ItemNumber folder, bool isWhole);
  /// `isUnproved`: the last listing proves nothing by what it lacks. `hasRefused`: some of its
  /// entries were not admitted.
  void noteProof(model::ItemNumber folder, bool isUnproved, bool hasRefused);

  /// Folders whose last listing did not come whole.
  std::vector<model::ItemNumber> partialFolders() const;
  /// How many listings did not come whole, and how many entries were not admitted.
  std::int64_t partialListings() const;
  std::int64_t refusedEntries() const;

 private:
  struct Folder {
    std::chrono::milliseconds lastDuration{0};
    std::uint32_t partialListings = 0;
    bool isUnproved = false;
    bool hasRefused = false;
  };

  bool isWithin(const model::Item& folder, std::chrono::milliseconds time) const;
  std::chrono::milliseconds lastDuration(model::ItemNumber folder) const;

  const async::Loop& loop_;
  const Options& options_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Folder> folders_;
  std::int64_t partialListings_ = 0;
  std::int64_t refusedEntries_ = 0;
};

}  // namespace kestrowan::replica::pull
