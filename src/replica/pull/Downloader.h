#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"
#include "replica/Options.h"
#include "replica/model/Edit.h"
#include "replica/pull/Freezer.h"
#include "replica/pull/Settler.h"
#include "replica/pull/Space.h"
#include "replica/remote/Health.h"
#include "replica/remote/Provider.h"
#include "replica/store/Contents.h"

namespace kestrowan::replica::pull {

/// Brings contents here. One fetch of an item at a time; it goes on when no caller waits any more.
/// Owned by the replica. Calls may come from every thread; coroutines continue on the loop. Throws
/// `NSError`.
class Downloader {
 public:
  Downloader(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
             remote::Health& health, const Options& options, store::Contents& contents,
             const Settler& settler, Space& space, Freezer& freezer);
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  /// Ends once the contents that the provider has of a file are here: as those that programs see,
  /// where these are the provider's, else beside them, to be compared.
  Task<void> fetch(model::ItemNumber file);
  /// The same for no caller in particular; does nothing while that is not possible.
  void fetchSoon(model::ItemNumber file);
  /// How many fetches are in flight.
  std::int64_t inFlight() const;

 private:
  using Waiters = std::vector<std::shared_ptr<OneShot<void>>>;

  void begin(model::ItemNumber file, std::shared_ptr<OneShot<void>> waiter);
  Task<void> run(model::ItemNumber file);
  Task<void> attempt(model::ItemNumber file);
  bool adopt(model::ItemNumber file, const model::There& before, const remote::FetchedFile& fetched,
             bool isLast);
  void noteNewer(model::ItemNumber file, const model::There& now);
  model::ItemNumber rivalOf(model::ItemNumber file) const;
  std::vector<model::Content> candidates(model::ItemNumber file,
                                         const std::vector<model::Content>& here) const;
  model::Content sameContent(model::ItemNumber file, const std::vector<model::Content>& here,
                             const std::string& path) const;
  bool write(model::ItemNumber file, const model::There& before, const model::There& now,
             model::Content content);
  static bool isWanted(const model::Item& file);

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Provider& provider_;
  remote::Health& health_;
  const Options& options_;
  store::Contents& contents_;
  const Settler& settler_;
  Space& space_;
  Freezer& freezer_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  /// The fetches in flight.
  std::unordered_map<model::ItemNumber, Waiters> waiters_;
};

}  // namespace kestrowan::replica::pull
