#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/foundation/NSError.h"
#include "replica/remote/Provider.h"

namespace kestrowan::replica::remote {

/// Whether the provider can be asked: up, down (no server; one attempt at a time finds out when it
/// is back), or held (nothing works until it is configured anew). A member of the provider's owner,
/// made and gone with it. Usable from every thread.
class Health {
 public:
  /// A call that needs a server which has just gone waits so long for it.
  static constexpr std::chrono::milliseconds kPatience{3000};

  /// `resume` is run on the loop whenever work may go on.
  Health(async::Scope& scope, Provider& provider, std::function<void()> resume);
  Health(const Health&) = delete;
  Health& operator=(const Health&) = delete;

  bool isUp() const;
  bool isOffline() const;
  /// Since a caller waited in vain for an answer: until one comes, no caller waits that can do
  /// without.
  bool isSlow() const;
  /// Why nothing is asked of it.
  std::optional<NSError> held() const;
  /// Why the provider, though it counts as up, has not answered: never so far, or not when it was
  /// asked last.
  std::optional<std::string> unanswered() const;
  /// The error of calls that cannot be made meanwhile.
  NSError reason() const;

  /// A new provider is there: everything may work again.
  void begin();
  /// No attempts are made any more, and what waits for one is answered.
  void stop();
  /// A caller waited in vain for an answer.
  void noteSlow();
  /// The same for a caller that waited since then (milliseconds since 1970-01-01 UTC) for something
  /// else than an answer: one to any other caller is enough.
  void noteWaited(std::int64_t since);
  /// The outcome of any request, but not of those that were stopped.
  void note(const std::optional<NSError>& error);

  /// Waits for a server that is not there, and has it asked for, ten times a second at most:
  /// until it answers, or has been away for `kPatience`; when it has been by then, until one
  /// attempt has failed. Whether it answers. On the loop.
  Task<bool> awaitServer();
  /// Ends at once while the provider can be asked. Else waits as `awaitServer` does, from whatever
  /// thread, and throws the reason when there is no server.
  Task<void> require();

 private:
  enum class State { absent, up, down, held };
  using Waiter = std::shared_ptr<OneShot<void>>;

  // With the lock.
  bool isWorking() const { return state_ == State::up && failures_ == 0; }
  Waiter joinAttempt();
  void take(const std::optional<NSError>& error);
  void recover();
  void open(State state, const NSError& error);
  void scheduleProbe();
  void beginAttempt();
  void endAttempt();

  Task<void> attempt();
  Task<void> reach(std::shared_ptr<OneShot<void>> reached);

  async::Scope& scope_;
  Provider& provider_;
  const std::function<void()> resume_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  State state_ = State::absent;
  std::optional<NSError> error_;
  /// Requests in a row that did not reach the server, and when the first of them failed.
  unsigned failures_ = 0;
  async::Loop::Moment failingSince_{};
  /// Whether there has been an answer since the state became what it is.
  bool answered_ = false;
  bool slow_ = false;
  bool stopped_ = false;
  /// Milliseconds since 1970-01-01 UTC.
  std::int64_t lastAnswer_ = 0;

  /// How many attempts were made by the clock; whether the next one, and one that a call wants
  /// sooner, have their timers; whether one is under way, and when it began.
  std::uint32_t probes_ = 0;
  bool isProbeDue_ = false;
  bool isAttemptDue_ = false;
  bool isAttempting_ = false;
  async::Loop::Moment lastAttempt_{};
  std::vector<Waiter> waiters_;
};

}  // namespace kestrowan::replica::remote
