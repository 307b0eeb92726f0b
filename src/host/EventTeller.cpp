#include "host/EventTeller.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "host/EventMessage.h"
#include "mount/DescribedError.h"
#include "platform/base/Threads.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

namespace {

using namespace std::chrono_literals;
using mount::EventCall;
using mount::ExpectedCall;
using std::chrono::milliseconds;

/// A process that has not made a call in this time hangs. A call may have to wait for one of a
/// program in the same folder, and that one for the server.
constexpr milliseconds kPatience = 10s;
constexpr milliseconds kFirstPause = 1s;
constexpr milliseconds kLongestPause = 60s;
/// How long a killed process may take to leave the mount.
constexpr milliseconds kLeaving = 1s;
/// Between two looks whether killed processes have ended.
constexpr milliseconds kReaping = 20ms;

}  // namespace

EventTeller::EventTeller(replica::Replica& replica)
    : replica_(replica),
      wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      events_(std::make_shared<mount::WatchEvents>([this] { wake(); })),
      pause_(kFirstPause) {
  if (!wakeUp_) throw systemError(errno, "host");
}

EventTeller::~EventTeller() {
  {
    std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  wake();
  if (thread_.joinable()) thread_.join();
}

void EventTeller::start() {
  thread_ = startThread("the events", [this] { run(); });
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return hasBegun_; });
}

void EventTeller::begin(const std::string& mountPoint, const std::string& device) {
  {
    std::lock_guard lock(mutex_);
    if (!device.empty()) place_ = Place{mountPoint, device};
  }
  wake();
}

void EventTeller::hold() {
  std::unique_lock lock(mutex_);
  place_.reset();
  wake();
  changed_.wait_for(lock, kLeaving, [this] { return isIdle_; });
}

void EventTeller::run() {
  guarded("the events", [this] { startProcess(); });
  isWorking_ = process_ != nullptr;
  {
    std::lock_guard lock(mutex_);
    hasBegun_ = true;
    changed_.notify_all();
  }
  while (!isEnding()) {
    guarded("the events", [this] { turn(); });
    noteIdle();
    wait();
  }
  endCall();
  if (process_) giveUpProcess();
  const auto deadline = Clock::now() + kLeaving;
  while (!dying_.empty() && Clock::now() < deadline) {
    ::poll(nullptr, 0, static_cast<int>(kReaping.count()));
    forgetEnded();
  }
}

void EventTeller::turn() {
  forgetEnded();
  if (process_ && deadline_) takeAnswer();
  keepProcess();
  if (!process_ || deadline_) return;
  tellNext();
}

/// Until there is something to do.
void EventTeller::wait() {
  std::optional<Clock::time_point> until = deadline_;
  const auto sooner = [&](Clock::time_point moment) {
    if (!until || moment < *until) until = moment;
  };
  if (!process_) sooner(nextStart_);
  if (!dying_.empty()) sooner(Clock::now() + kReaping);
  if (process_ && !deadline_ && place()) {
    if (const auto next = events_->untold.nextMoment()) sooner(*next);
  }
  int limit = -1;
  if (until) {
    const auto left =
        std::chrono::ceil<milliseconds>(std::max(*until, Clock::now()) - Clock::now());
    limit = static_cast<int>(std::min<milliseconds>(left, kLongestPause).count());
  }
  std::array<pollfd, 2> awaited = {
      {{wakeUp_.get(), POLLIN, 0}, {process_ ? process_->descriptor() : -1, POLLIN, 0}}};
  ::poll(awaited.data(), awaited.size(), limit);
  std::uint64_t count = 0;
  while (::read(wakeUp_.get(), &count, sizeof count) > 0) {
  }
}

/// Has a process that hangs, has died or must leave the mount replaced.
void EventTeller::keepProcess() {
  if (process_) {
    const bool mustLeave = deadline_ && !place();
    const bool hangs = deadline_ && Clock::now() >= *deadline_;
    if (!mustLeave && !hangs && !process_->hasEnded() && !process_->isClosed()) return;
    endCall();
    giveUpProcess();
    // What is still to be told may be what it hung in.
    events_->untold.clear();
    nextStart_ = Clock::now() + (mustLeave ? milliseconds(0) : pause_);
    if (!mustLeave) pause_ = std::min(pause_ * 2, kLongestPause);
  }
  if (Clock::now() >= nextStart_) startProcess();
}

void EventTeller::startProcess() {
  nextStart_ = Clock::now() + pause_;
  if (dying_.size() + 1 >= mount::EventCaller::kMostProcesses) return;
  process_ = std::make_unique<EventProcess>();
  events_->caller.add(process_->number());
}

void EventTeller::giveUpProcess() {
  process_->kill();
  dying_.push_back(std::move(process_));
  forgetEnded();
}

void EventTeller::forgetEnded() {
  std::erase_if(dying_, [this](const auto& process) {
    if (!process->hasEnded()) return false;
    // Before its number becomes another's.
    events_->caller.remove(process->number());
    return true;
  });
}

void EventTeller::takeAnswer() {
  const auto answer = process_->answer();
  if (!answer) return;
  noteAnswer(answer->error);
}

void EventTeller::noteAnswer(int error) {
  events_->caller.expectNothing();
  deadline_.reset();
  pause_ = kFirstPause;
  const EventCall made = std::move(calls_.front());
  calls_.pop_front();
  // Where nothing may be made or removed, the folder itself tells that something has changed.
  if (error == EACCES && !made.name.empty()) calls_ = {mount::callForFolder(made.folder)};
  if (calls_.empty()) endCall();
}

/// Asks for the next call, if there is one.
void EventTeller::tellNext() {
  while (place()) {
    if (calls_.empty()) {
      const auto calls = events_->untold.next(Clock::now());
      if (calls.empty()) return;
      calls_.assign(calls.begin(), calls.end());
    }
    while (!calls_.empty()) {
      if (ask(calls_.front())) return;
      calls_.pop_front();
    }
    endCall();
  }
}

/// Whether the process was asked for the call.
bool EventTeller::ask(const EventCall& call) {
  const auto at = enter();
  if (!at) return false;
  auto way = replica_.files().way(call.folder);
  if (!way) return false;
  EventMessage message{call.kind, at->mountPoint, at->device, {}, call.name};
  for (const auto& step : *way) message.way.push_back(step.name);
  events_->caller.expect(process_->number(),
                         std::make_shared<const ExpectedCall>(call, *std::move(way)));
  if (!process_->send(message.packet())) {
    events_->caller.expectNothing();
    return false;
  }
  deadline_ = Clock::now() + kPatience;
  return true;
}

/// The change in hand is told, or given up.
void EventTeller::endCall() {
  events_->caller.expectNothing();
  calls_.clear();
  deadline_.reset();
  events_->untold.noteTold();
}

/// Where calls are made; absent when none are.
std::optional<EventTeller::Place> EventTeller::place() const {
  std::lock_guard lock(mutex_);
  return place_;
}

/// The same, which is in use from now on.
std::optional<EventTeller::Place> EventTeller::enter() {
  std::lock_guard lock(mutex_);
  if (place_) isIdle_ = false;
  return place_;
}

bool EventTeller::isEnding() const {
  std::lock_guard lock(mutex_);
  return isEnding_;
}

void EventTeller::noteIdle() {
  isWorking_ = process_ != nullptr;
  std::lock_guard lock(mutex_);
  isIdle_ = !deadline_ && dying_.empty();
  if (isIdle_) changed_.notify_all();
}

void EventTeller::wake() const {
  const std::uint64_t one = 1;
  while (::write(wakeUp_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

}  // namespace kestrowan::host
