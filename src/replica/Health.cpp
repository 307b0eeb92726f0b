#include "replica/Health.h"

#include <utility>

#include "async/Scope.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/ErrorClass.h"

namespace kestrowan::replica {

namespace {

constexpr unsigned kFailuresUntilDown = 3;
/// The transport's codes from here on are about local files.
constexpr std::int64_t kFirstFileCode = NSURLErrorCannotCreateFile;

bool isOfThisMachine(const NSError& error) {
  return error.domain() == NSURLErrorDomain && error.code() <= kFirstFileCode;
}

}  // namespace

Health::Health(Core& core, std::function<void()> resume)
    : core_(core), resume_(std::move(resume)) {}

std::optional<std::string> Health::held() const {
  if (state_ != State::held) return std::nullopt;
  return error_->localizedDescription();
}

std::optional<std::string> Health::unanswered() const {
  if (state_ != State::up) return std::nullopt;
  if (failures_ > 0) return error_->localizedDescription();
  if (slow_) return NSError(NSURLErrorDomain, NSURLErrorTimedOut).localizedDescription();
  if (!answered_) return "There has been no answer so far.";
  return std::nullopt;
}

NSError Health::reason() const {
  return error_.value_or(NSError(NSURLErrorDomain, NSURLErrorCannotConnectToHost));
}

void Health::begin() {
  state_ = State::up;
  error_.reset();
  failures_ = 0;
  slow_ = false;
  answered_ = false;
  core_.loop.post(resume_);
}

void Health::note(const std::optional<NSError>& error) {
  if (core_.stopped || state_ == State::absent) return;
  // A file that could not be written or read here says nothing of the server.
  if (error && isOfThisMachine(*error)) return;
  const auto kind = error ? std::optional(errorClass(*error)) : std::nullopt;
  if (kind == ErrorClass::held) {
    open(State::held, *error);
  } else if (kind == ErrorClass::down ||
             (kind == ErrorClass::transient && error->domain() == NSURLErrorDomain)) {
    if (state_ == State::up) error_ = *error;
    if (++failures_ >= kFailuresUntilDown && state_ == State::up) open(State::down, *error);
  } else if (kind != ErrorClass::transient && kind != ErrorClass::ambiguous) {
    // Somebody answered.
    failures_ = 0;
    slow_ = false;
    lastAnswer_ = core_.milliseconds();
    if (state_ != State::up) begin();
    answered_ = true;
  }
}

void Health::open(State state, const NSError& error) {
  state_ = state;
  error_ = error;
  probes_ = 0;
  // Whoever waits need not any longer.
  core_.loop.post(resume_);
  scheduleProbe();
}

void Health::scheduleProbe() {
  if (probing_ || core_.stopped) return;
  core_.loop.postAfter(probeInterval(++probes_), [this] {
    if (guarded("a probe of the provider", [this] { core_.loop.spawn(probe()); })) return;
    std::lock_guard lock(core_.mutex);
    probing_ = false;
    scheduleProbe();
  });
  probing_ = true;
}

Task<void> Health::probe() {
  NSFileProviderItemIdentifier root(NSFileProviderRootContainerItemIdentifier);
  std::optional<NSError> failure;
  try {
    const auto outcome = co_await core_.provider.list(std::move(root));
    if (!outcome.succeeded()) failure = outcome.error();
  } catch (...) {
    failure = caughtError();
  }
  std::lock_guard lock(core_.mutex);
  probing_ = false;
  if (core_.stopped || state_ == State::up) co_return;
  if (!failure) {
    begin();
    answered_ = true;
    co_return;
  }
  const auto kind = errorClass(*failure);
  if (kind == ErrorClass::held) {
    state_ = State::held;
    error_ = failure;
  } else if (kind == ErrorClass::down) {
    state_ = State::down;
    error_ = failure;
  }
  scheduleProbe();
}

}  // namespace kestrowan::replica
