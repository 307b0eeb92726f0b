#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/base/OneShot.h"
#include "platform/base/Resumer.h"
#include "platform/foundation/NSError.h"
#include "replica/model/Numbers.h"

namespace kestrowan::replica::pull {

/// Which folders are being listed, and the calls that wait for these listings: one ordinary listing
/// of each folder is on its way at most, and all that wait share it. Owned by the looks; usable
/// from every thread.
class FolderWaiters {
 public:
  using Shot = std::shared_ptr<OneShot<void>>;

  /// Those that wait continue on `loop`, which must outlive it.
  explicit FolderWaiters(Resumer& loop) : loop_(loop) {}
  FolderWaiters(const FolderWaiters&) = delete;
  FolderWaiters& operator=(const FolderWaiters&) = delete;

  /// The end of the listing that is on its way, or else of the next one; of the next one in any
  /// case when it must begin `fromNow`. An insistent waiter can do nothing without a listing.
  /// ESHUTDOWN once stopped.
  Shot join(model::ItemNumber folder, bool fromNow, bool isInsistent);
  bool isListing(model::ItemNumber folder) const;
  /// Whether the caller is to begin a listing now: none is on its way.
  bool begin(model::ItemNumber folder);
  /// The listing on its way has ended, with this error or none. Whether another one is to begin.
  bool end(model::ItemNumber folder, const std::exception_ptr& error);
  /// Gives the error to those that can do without the listing. Whether others wait.
  bool answerUnlessInsistent(model::ItemNumber folder, const NSError& error);
  /// Answers all that wait, and lets no more listings begin.
  void stop();

 private:
  struct Waiter {
    Shot shot;
    bool isInsistent = false;
  };
  using Waiters = std::vector<Waiter>;
  struct Folder {
    bool isListing = false;
    /// Another listing begins when this one has ended: it began too early for a caller.
    bool listAgain = false;
    Waiters waiters;
    Waiters nextWaiters;
  };

  Resumer& loop_;
  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Folder> folders_;
  bool isStopped_ = false;
};

}  // namespace kestrowan::replica::pull
