#include "replica/pull/Flights.h"

#include <algorithm>
#include <utility>

namespace kestrowan::replica::pull {

using model::ItemNumber;

bool Flights::Flight::isUnread() const {
  if (isCancelled || isNeededWhole() || !openers.empty() || !stream) return false;
  return (stream->isUnread() && !stream->isNearlyWhole()) || stream->hasFailed();
}

std::pair<Flights::Flight&, bool> Flights::take(ItemNumber file) {
  const auto [place, isNew] = flights_.try_emplace(file);
  if (isNew) place->second.serial = ++lastSerial_;
  return {place->second, isNew};
}

bool Flights::want(ItemNumber file) {
  return await(file, Waiter());
}

bool Flights::await(ItemNumber file, Waiter waiter) {
  std::shared_ptr<Stream> stream;
  bool isNew = false;
  {
    std::lock_guard lock(mutex_);
    const auto [flight, isFirst] = take(file);
    if (waiter) {
      flight.waiters.push_back(std::move(waiter));
    } else {
      flight.isWanted = true;
    }
    stream = flight.stream;
    isNew = isFirst;
  }
  if (stream) stream->hurry();
  return isNew;
}

bool Flights::await(ItemNumber file, Opener opener) {
  std::shared_ptr<Stream> stream;
  bool isNew = false;
  {
    std::lock_guard lock(mutex_);
    const auto [flight, isFirst] = take(file);
    if (!flight.isCancelled && flight.stream && !flight.stream->hasFailed()) {
      stream = flight.stream;
    } else {
      flight.openers.push_back(opener);
    }
    isNew = isFirst;
  }
  if (stream) opener->resolve(stream->reader());
  return isNew;
}

std::int64_t Flights::count() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::int64_t>(flights_.size());
}

std::int64_t Flights::countUnstreamed() const {
  std::lock_guard lock(mutex_);
  return std::count_if(flights_.begin(), flights_.end(),
                       [](const auto& flight) { return !flight.second.stream; });
}

std::shared_ptr<Stream> Flights::stream(ItemNumber file) const {
  std::lock_guard lock(mutex_);
  const auto found = flights_.find(file);
  return found == flights_.end() ? nullptr : found->second.stream;
}

void Flights::arrive(ItemNumber file, std::shared_ptr<Stream> stream, Contents contents,
                     std::shared_ptr<void> excuse) {
  std::vector<Opener> openers;
  bool isNeededWhole = false;
  {
    std::lock_guard lock(mutex_);
    const auto found = flights_.find(file);
    if (found == flights_.end()) return;
    Flight& flight = found->second;
    flight.stream = stream;
    flight.contents = std::move(contents);
    flight.excuse = std::move(excuse);
    isNeededWhole = flight.isNeededWhole();
    if (!flight.isCancelled) openers.swap(flight.openers);
  }
  if (isNeededWhole) stream->hurry();
  for (const auto& opener : openers) opener->resolve(stream->reader());
}

void Flights::pause(ItemNumber file) {
  std::shared_ptr<Stream> stream;
  Contents contents;
  std::shared_ptr<void> excuse;
  {
    std::lock_guard lock(mutex_);
    const auto found = flights_.find(file);
    if (found == flights_.end()) return;
    stream = found->second.stream;
    contents = std::move(found->second.contents);
    excuse = std::move(found->second.excuse);
  }
  if (stream) stream->pause();
}

bool Flights::isCancelled(ItemNumber file) const {
  std::lock_guard lock(mutex_);
  const auto found = flights_.find(file);
  return found != flights_.end() && found->second.isCancelled;
}

std::optional<Flights::Ended> Flights::end(ItemNumber file, bool hasFailed) {
  std::shared_ptr<Stream> given;
  std::lock_guard lock(mutex_);
  const auto found = flights_.find(file);
  Flight& flight = found->second;
  const bool isWantedAgain = flight.isNeededWhole() || !flight.openers.empty();
  if (hasFailed && flight.isCancelled && isWantedAgain) {
    flight.isCancelled = false;
    given = std::move(flight.stream);
    return std::nullopt;
  }
  Ended ended{std::move(flight.waiters), std::move(flight.openers), std::move(flight.stream)};
  flights_.erase(found);
  return ended;
}

void Flights::cancelUnread(ItemNumber file) {
  Contents contents;
  {
    std::lock_guard lock(mutex_);
    const auto found = flights_.find(file);
    if (found == flights_.end() || !found->second.isUnread()) return;
    found->second.isCancelled = true;
    contents = found->second.contents;
  }
  if (contents) contents->cancel();
}

void Flights::cancelUnread(std::size_t kept) {
  std::vector<std::pair<std::uint64_t, ItemNumber>> unread;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [file, flight] : flights_) {
      if (flight.isUnread()) unread.emplace_back(flight.serial, file);
    }
  }
  if (unread.size() <= kept) return;
  std::sort(unread.begin(), unread.end());
  unread.resize(unread.size() - kept);
  for (const auto& each : unread) cancelUnread(each.second);
}

}  // namespace kestrowan::replica::pull
