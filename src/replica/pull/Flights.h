#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/base/OneShot.h"
#include "replica/model/Numbers.h"
#include "replica/pull/Stream.h"
#include "replica/remote/ArrivingContents.h"

namespace kestrowan::replica::pull {

/// The fetches under way, with what waits for each of them. Usable from every thread.
class Flights {
 public:
  using Waiter = std::shared_ptr<OneShot<void>>;
  using Opener = std::shared_ptr<OneShot<Stream::Reader>>;
  using Contents = std::shared_ptr<remote::ArrivingContents>;

  /// What waited for a fetch that is over.
  struct Ended {
    std::vector<Waiter> waiters;
    std::vector<Opener> openers;
    std::shared_ptr<Stream> stream;  // may be null
  };

  // What is wanted of a file. Each says whether its fetch is to be begun.

  /// Its contents, by no caller in particular.
  bool want(model::ItemNumber file);
  /// Its contents, whole. Without a waiter the same as `want`.
  bool await(model::ItemNumber file, Waiter waiter);
  /// Its contents, or what can be read of them meanwhile: answered at once when there is a stream.
  bool await(model::ItemNumber file, Opener opener);

  std::int64_t count() const;
  /// Those whose contents are not read while they arrive.
  std::int64_t countUnstreamed() const;

  // For the fetch.

  /// Null when nothing can be read of the file yet.
  std::shared_ptr<Stream> stream(model::ItemNumber file) const;
  /// Contents arrive that are read through the stream, which answers the calls that wait to open
  /// the file. `excuse` is held until they have come to their end.
  void arrive(model::ItemNumber file, std::shared_ptr<Stream> stream, Contents contents,
              std::shared_ptr<void> excuse);
  /// They have come to their end, whole or not.
  void pause(model::ItemNumber file);
  bool isCancelled(model::ItemNumber file) const;
  /// The fetch is over. Absent when it was cancelled and is wanted again: it is then begun anew.
  std::optional<Ended> end(model::ItemNumber file, bool hasFailed);

  /// Cancels a fetch whose contents nothing reads and nothing waits for, unless they are nearly
  /// here.
  void cancelUnread(model::ItemNumber file);
  /// The same for all of them but the latest `kept`.
  void cancelUnread(std::size_t kept);

 private:
  struct Flight {
    std::uint64_t serial = 0;
    std::vector<Waiter> waiters;
    std::vector<Opener> openers;
    std::shared_ptr<Stream> stream;
    Contents contents;  // null while none arrive
    std::shared_ptr<void> excuse;
    bool isWanted = false;
    bool isCancelled = false;

    bool isNeededWhole() const { return isWanted || !waiters.empty(); }
    bool isUnread() const;
  };

  /// The flight of the file, and whether it is new.
  std::pair<Flight&, bool> take(model::ItemNumber file);

  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<model::ItemNumber, Flight> flights_;
  std::uint64_t lastSerial_ = 0;
};

}  // namespace kestrowan::replica::pull
