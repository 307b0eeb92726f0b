#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <vector>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"
#include "replica/Options.h"
#include "replica/model/Edit.h"
#include "replica/pull/Flights.h"
#include "replica/pull/Freezer.h"
#include "replica/pull/Settler.h"
#include "replica/pull/Space.h"
#include "replica/pull/Stream.h"
#include "replica/remote/Health.h"
#include "replica/remote/Provider.h"
#include "replica/store/Contents.h"

namespace kestrowan::replica::pull {

/// Brings contents here. One fetch of an item at a time; it goes on when no caller waits any more,
/// but for one that nothing needed whole and nothing reads any more.
/// Owned by the replica. Calls may come from every thread; coroutines continue on the loop. Throws
/// `NSError`.
class Downloader {
 public:
  /// `arrived` is called on the loop once contents that were read before are here, in whatever is
  /// shown of the file.
  using Arrived = std::function<void(model::ItemNumber)>;

  Downloader(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
             remote::Health& health, const Options& options, store::Contents& contents,
             const Settler& settler, Space& space, Freezer& freezer, Arrived arrived);
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  /// Ends once the contents that the provider has of a file are here: as those that programs see,
  /// where these are the provider's, else beside them, to be compared.
  Task<void> fetch(model::ItemNumber file);
  /// The same, or ends sooner, with what a program can read of them while they arrive. Null when
  /// they are here.
  Task<Stream::Reader> open(model::ItemNumber file);
  /// The same as `fetch` for no caller in particular; does nothing while that is not possible.
  void fetchSoon(model::ItemNumber file);
  /// How many fetches are in flight.
  std::int64_t inFlight() const { return flights_.count(); }
  /// The same without those of files that are read while they arrive, which may take long.
  std::int64_t inFlightUnread() const { return flights_.countUnstreamed(); }

 private:
  Task<void> run(model::ItemNumber file);
  void logBroken(model::ItemNumber file, const std::exception_ptr& problem) const;
  Task<void> attempt(model::ItemNumber file);
  Task<std::shared_ptr<void>> roomFor(std::int64_t bytes);
  Task<remote::FetchedFile> fetchOnce(model::ItemNumber file,
                                      NSFileProviderItemIdentifier identifier, model::There before);
  Task<bool> take(model::ItemNumber file, model::There before, remote::FetchedFile fetched,
                  bool isLast);
  bool hasMoved(model::ItemNumber file, const NSFileProviderItemIdentifier& identifier) const;
  void noteArrival(model::ItemNumber file, const model::There& before,
                   const Flights::Contents& contents);
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
  const Arrived arrived_;
  Flights flights_;
};

}  // namespace kestrowan::replica::pull
