#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "async/Loop.h"
#include "platform/base/Abandonment.h"
#include "platform/foundation/NSError.h"
#include "replica/remote/ArrivingContents.h"

namespace kestrowan::test {

/// How contents arrive from the provider in memory. A plain value; sizes are bytes.
struct Arriving {
  /// So many come in each step of time.
  std::size_t piece = 64 * 1024;
  std::chrono::milliseconds step{1};
  /// The connection breaks after so many.
  std::optional<std::size_t> cutAfter = std::nullopt;
  /// No more come after so many; the fetch fails a minute later.
  std::optional<std::size_t> stallAfter = std::nullopt;
  /// What is announced instead of the true size.
  std::optional<std::int64_t> announced = std::nullopt;
  /// Nothing is announced.
  bool withoutSize = false;
  /// Nothing is said of the version.
  bool withoutVersion = false;
};

/// Delivers the contents of fetches piece by piece, in the loop's time, and tells those that watch.
/// Shared by the provider in memory and its deliveries, which end with the loop. Usable from every
/// thread.
class MemoryArrivals : public std::enable_shared_from_this<MemoryArrivals> {
 public:
  using Begun = std::function<void(std::shared_ptr<replica::remote::ArrivingContents>)>;
  /// Gets the error of a delivery that failed.
  using Done = std::function<void(const std::optional<NSError>& error)>;

  explicit MemoryArrivals(async::Loop& loop) : loop_(loop) {}

  /// Tells of the delivery for the call of which the current abandonment is.
  std::shared_ptr<void> watch(Begun begun);
  /// Writes `bytes`, which are of `version`, into the new file at `path`, and calls `done`. `call`
  /// is the abandonment of the call.
  void deliver(const std::shared_ptr<Abandonment>& call, const std::string& version,
               std::string bytes, const std::string& path, const Arriving& manner, Done done);

  /// How many bytes have been delivered in all.
  std::size_t delivered() const;
  std::size_t cancelled() const;

 private:
  class Delivery;
  struct Watch {
    std::shared_ptr<Abandonment> call;
    Begun begun;
  };

  async::Loop& loop_;
  mutable std::mutex mutex_;  // guards what follows
  std::list<Watch> watches_;
  std::size_t delivered_ = 0;
  std::size_t cancelled_ = 0;
};

}  // namespace kestrowan::test
