#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "replica/Core.h"

namespace kestrowan::replica {

/// Whether the provider can be asked: up, down (no server; one probe at a time finds out when it is
/// back), or held (nothing works until it is configured anew). Guarded by the core's lock.
class Health {
 public:
  /// `resume` is run on the loop, without the lock, whenever work may go on.
  Health(Core& core, std::function<void()> resume);

  bool isUp() const { return state_ == State::up; }
  bool isOffline() const { return state_ == State::down || state_ == State::absent; }
  std::optional<std::string> held() const;
  /// Why the provider, though it counts as up, has not answered: never so far, or not when it was
  /// asked last.
  std::optional<std::string> unanswered() const;
  /// What whoever asks meanwhile is told.
  NSError reason() const;

  // Locked.

  /// A new provider is there: everything may work again.
  void begin();
  /// Somebody waited in vain for an answer: until one comes, nobody waits who can do without.
  void noteSlow() { slow_ = true; }
  /// The same for somebody who waited since then (milliseconds since 1970-01-01 UTC) for something
  /// else than an answer: one to anybody else is enough.
  void noteWaited(std::int64_t since) {
    if (lastAnswer_ <= since) slow_ = true;
  }
  bool isSlow() const { return slow_; }
  /// The outcome of any request, but not of those that were stopped.
  void note(const std::optional<NSError>& error);

 private:
  enum class State { absent, up, down, held };

  void open(State state, const NSError& error);
  void scheduleProbe();
  Task<void> probe();

  Core& core_;
  const std::function<void()> resume_;
  State state_ = State::absent;
  std::optional<NSError> error_;
  unsigned failures_ = 0;
  /// Whether there has been an answer since the state became what it is.
  bool answered_ = false;
  std::uint32_t probes_ = 0;
  bool probing_ = false;
  bool slow_ = false;
  /// Milliseconds since 1970-01-01 UTC.
  std::int64_t lastAnswer_ = 0;
};

}  // namespace kestrowan::replica
