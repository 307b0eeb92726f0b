#include "replica/remote/Health.h"

#include <algorithm>
#include <utility>

#include "async/WithTimeout.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica::remote {

namespace {

using std::chrono::milliseconds;

constexpr unsigned kFailuresUntilDown = 3;
/// Between the beginnings of two attempts that calls want.
constexpr milliseconds kAttemptInterval{100};
/// The transport's codes from here on are about local files.
constexpr std::int64_t kFirstFileCode = NSURLErrorCannotCreateFile;

bool isOfThisMachine(const NSError& error) {
  return error.domain() == NSURLErrorDomain && error.code() <= kFirstFileCode;
}

}  // namespace

Health::Health(async::Scope& scope, Provider& provider, std::function<void()> resume)
    : scope_(scope), provider_(provider), resume_(std::move(resume)) {}

bool Health::isUp() const {
  std::lock_guard lock(mutex_);
  return !stopped_ && state_ == State::up;
}

bool Health::isOffline() const {
  std::lock_guard lock(mutex_);
  return state_ == State::down || state_ == State::absent;
}

bool Health::isSlow() const {
  std::lock_guard lock(mutex_);
  return slow_;
}

std::optional<NSError> Health::held() const {
  std::lock_guard lock(mutex_);
  if (state_ != State::held) return std::nullopt;
  return error_;
}

std::optional<std::string> Health::unanswered() const {
  std::lock_guard lock(mutex_);
  if (state_ != State::up) return std::nullopt;
  if (failures_ > 0) return error_->localizedDescription();
  if (slow_) return NSError(NSURLErrorDomain, NSURLErrorTimedOut).localizedDescription();
  if (!answered_) return "There has been no answer so far.";
  return std::nullopt;
}

NSError Health::reason() const {
  std::lock_guard lock(mutex_);
  return error_.value_or(NSError(NSURLErrorDomain, NSURLErrorCannotConnectToHost));
}

void Health::begin() {
  std::lock_guard lock(mutex_);
  recover();
}

void Health::stop() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
  for (const auto& waiter : std::exchange(waiters_, {})) waiter->resolve();
}

void Health::noteSlow() {
  std::lock_guard lock(mutex_);
  slow_ = true;
}

void Health::noteWaited(std::int64_t since) {
  std::lock_guard lock(mutex_);
  if (lastAnswer_ <= since) slow_ = true;
}

void Health::note(const std::optional<NSError>& error) {
  std::lock_guard lock(mutex_);
  take(error);
}

void Health::recover() {
  state_ = State::up;
  error_.reset();
  failures_ = 0;
  slow_ = false;
  answered_ = false;
  scope_.post(resume_);
}

void Health::take(const std::optional<NSError>& error) {
  if (stopped_ || state_ == State::absent) return;
  // A file that could not be written or read here says nothing of the server.
  if (error && isOfThisMachine(*error)) return;
  const bool isUp = state_ == State::up;
  const auto kind = error ? std::optional(errorClass(*error)) : std::nullopt;
  if (kind == ErrorClass::held) {
    open(State::held, *error);
  } else if (kind == ErrorClass::down ||
             (kind == ErrorClass::transient && error->domain() == NSURLErrorDomain)) {
    if (isUp) error_ = *error;
    if (failures_ == 0) failingSince_ = scope_.now();
    const bool isAway = ++failures_ >= kFailuresUntilDown || state_ == State::held;
    if (isAway && (isUp || kind == ErrorClass::down)) open(State::down, *error);
  } else if (kind != ErrorClass::transient && kind != ErrorClass::ambiguous) {
    // There was an answer.
    failures_ = 0;
    slow_ = false;
    lastAnswer_ = scope_.wallClock();
    if (!isUp) recover();
    answered_ = true;
  }
}

void Health::open(State state, const NSError& error) {
  const bool wasUp = state_ == State::up;
  state_ = state;
  error_ = error;
  if (!wasUp) return;
  probes_ = 0;
  // What waits need not any longer.
  scope_.post(resume_);
  scheduleProbe();
}

void Health::scheduleProbe() {
  if (isProbeDue_ || stopped_) return;
  scope_.postAfter(probeInterval(++probes_), [this] {
    std::lock_guard lock(mutex_);
    isProbeDue_ = false;
    if (state_ == State::up || stopped_) return;
    beginAttempt();
  });
  isProbeDue_ = true;
}

void Health::beginAttempt() {
  if (isAttempting_ || stopped_) return;
  lastAttempt_ = scope_.now();
  isAttempting_ = guarded("a probe of the provider", [this] { scope_.spawn(attempt()); });
  if (!isAttempting_) endAttempt();
}

void Health::endAttempt() {
  isAttempting_ = false;
  for (const auto& waiter : std::exchange(waiters_, {})) waiter->resolve();
  if (state_ != State::up) scheduleProbe();
}

Task<void> Health::attempt() {
  NSFileProviderItemIdentifier root(NSFileProviderRootContainerItemIdentifier);
  std::optional<NSError> failure;
  try {
    auto listing = provider_.list(std::move(root));
    co_await std::move(listing);
  } catch (...) {
    failure = caughtError();
  }
  std::lock_guard lock(mutex_);
  take(failure);
  endAttempt();
}

Health::Waiter Health::joinAttempt() {
  auto waiter = std::make_shared<OneShot<void>>(scope_);
  waiters_.push_back(waiter);
  if (isAttempting_ || isAttemptDue_) return waiter;
  const auto wait = lastAttempt_ + kAttemptInterval - scope_.now();
  scope_.postAfter(std::max(std::chrono::ceil<milliseconds>(wait), milliseconds(0)), [this] {
    std::lock_guard lock(mutex_);
    isAttemptDue_ = false;
    beginAttempt();
  });
  isAttemptDue_ = true;
  return waiter;
}

Task<bool> Health::awaitServer() {
  const auto end = scope_.now() + kPatience;
  for (;;) {
    Waiter attempted;
    {
      std::lock_guard lock(mutex_);
      if (isWorking()) co_return true;
      if (stopped_ || state_ == State::absent || state_ == State::held) co_return false;
      // One that takes so long tells nothing for now.
      if (isAttempting_ && scope_.now() - lastAttempt_ >= kPatience) co_return false;
      attempted = joinAttempt();
    }
    auto ended =
        async::withTimeout(scope_, std::chrono::ceil<milliseconds>(end - scope_.now()),
                           std::make_exception_ptr(NSError(NSURLErrorDomain, NSURLErrorTimedOut)),
                           std::move(attempted));
    try {
      co_await std::move(ended);
    } catch (const NSError&) {
      co_return false;
    }
    std::lock_guard lock(mutex_);
    if (isWorking()) co_return true;
    if (scope_.now() - failingSince_ >= kPatience || scope_.now() >= end) co_return false;
  }
}

Task<void> Health::require() {
  if (isUp()) co_return;
  auto reached = std::make_shared<OneShot<void>>(scope_);
  scope_.spawn(reach(reached));
  auto result = OneShot<void>::result(std::move(reached));
  co_await std::move(result);
}

/// On the loop, whatever thread asked.
Task<void> Health::reach(std::shared_ptr<OneShot<void>> reached) {
  auto awaited = awaitServer();
  if (co_await std::move(awaited)) {
    reached->resolve();
  } else {
    reached->reject(std::make_exception_ptr(reason()));
  }
}

}  // namespace kestrowan::replica::remote
