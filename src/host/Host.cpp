#include "host/Host.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "async/LoopThread.h"
#include "host/ArrivingDownload.h"
#include "host/BridgeAccess.h"
#include "host/BridgeProblem.h"
#include "host/BridgeWatch.h"
#include "host/CommandAdvice.h"
#include "host/ControlSocket.h"
#include "host/Directories.h"
#include "host/DomainChoice.h"
#include "host/EventTeller.h"
#include "host/FinishedRequests.h"
#include "host/FolderWatches.h"
#include "host/HostCommands.h"
#include "host/HostEvents.h"
#include "host/HostFileManager.h"
#include "host/HostLog.h"
#include "host/ListingRules.h"
#include "host/MountFolder.h"
#include "host/ProviderKeeper.h"
#include "host/Registry.h"
#include "host/Reserve.h"
#include "host/ServiceManager.h"
#include "host/StateDirectory.h"
#include "host/StatusNews.h"
#include "host/StorageBinding.h"
#include "host/VersionRules.h"
#include "mount/DescribedError.h"
#include "mount/Mount.h"
#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"
#include "platform/network/TransferMonitor.h"
#include "replica/Replica.h"

namespace kestrowan::host {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using mount::Mount;

/// Between two new extensions while the one that is there cannot work.
constexpr std::chrono::milliseconds kHeldInterval = 30s;
/// Between two looks at what is worth a line in the log.
constexpr std::chrono::milliseconds kNewsInterval = 10s;
/// A server that lets requests wait for so long without a byte is silent.
constexpr std::chrono::seconds kSilence = 5s;
/// How long readiness waits for a server that neither answers nor refuses.
constexpr std::chrono::milliseconds kRootPatience = 5s;
/// Between two looks whether waiting for changes to be sent still makes sense, and between two
/// attempts to unmount what is in use.
constexpr std::chrono::milliseconds kStep = 1s;
/// How long programs that have files open in a mount that was taken away may keep the host.
constexpr std::chrono::milliseconds kLazyPatience = 5s;
/// What the stop ends has so long to end by itself.
constexpr std::chrono::milliseconds kLastWork = 5s;

std::string machineName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return "here";
  return name.data();
}

std::string changesText(std::int64_t count) {
  return std::to_string(count) + (count == 1 ? " change" : " changes");
}

replica::Options replicaOptions(const HostSettings& settings) {
  auto options = settings.replica;
  options.identifiers = replica::remote::IdentifierForm::paths();
  options.wouldRefuse = extensionRefusals();
  options.hostName = machineName();
  options.saysNothing = saysNothing;
  options.openFiles = raiseDescriptorLimit();
  options.lastingPart = lastingPart;
  options.cameWhole = cameWhole;
  options.watchArrival = watchDownload;
  options.watchAnswers = watchAnswers;
  return options;
}

std::string socketPath(const HostSettings& settings) {
  const auto runtime = runtimeHome();
  if (!runtime) return settings.stateDirectory + "/control.sock";
  const auto directory = *runtime + "/kestrowan";
  closeToOthers(openPrivateDirectory(directory), directory);
  return directory + "/" + settings.domain + "-" + shortName(settings.stateDirectory) + ".sock";
}

/// Before anything is made or taken away for a mount that is refused.
HostSettings checked(HostSettings settings) {
  requireOwnStorage(settings);
  return settings;
}

}  // namespace

class Host::Implementation {
 public:
  explicit Implementation(HostSettings settings);
  ~Implementation();

  void run(const std::function<bool()>& ready);

 private:
  mount::MountOptions mountOptions();
  void begin();
  void use(std::shared_ptr<NSFileProviderReplicatedExtension> provider);
  Task<void> askForRoot();
  bool becomeReady(const std::function<bool()>& ready);
  void serve();
  void sayHowItBegins();
  void tick();
  void warn();
  replica::Status status() const;
  std::vector<std::string> warnings();
  std::string events() const;
  std::int64_t answerUnmount(bool force);

  bool leaveForRequest(UnmountRequest request);
  void leaveForSignal();
  void drain(Clock::time_point deadline);
  Task<void> untilDrained(std::chrono::milliseconds limit,
                          std::shared_ptr<std::atomic<bool>> drained);
  void unmount(Mount::Unmounting how);
  bool unmountWhenFree();
  std::int64_t finish(Clock::time_point deadline);
  void leaveLazily();
  bool isHurried() const { return events_.signals() > 1 || hurry_ || events_.forceIsWanted(); }
  std::int64_t changesLeft() const { return replica_->commands().status(0).pendingCount; }
  void say(const std::string& text);

  const HostSettings settings_;
  HostEvents events_;
  MountFolder folder_;
  StateDirectory state_;
  Reserve reserve_;
  const std::shared_ptr<NSFileManager> systemFiles_ = NSFileManager::defaultManager();
  std::unique_ptr<async::LoopThread> loop_;
  std::unique_ptr<replica::Replica> replica_;
  std::unique_ptr<EventTeller> teller_;
  std::unique_ptr<Mount> mount_;
  std::unique_ptr<FolderWatches> watches_;
  std::unique_ptr<ProviderKeeper> keeper_;
  std::unique_ptr<BridgeWatch> watch_;
  std::unique_ptr<ControlSocket> socket_;
  std::unique_ptr<Registration> registration_;

  std::string warned_;
  StatusNews news_;
  Clock::time_point lastNews_;
  bool hurry_ = false;
  /// The first provider was asked for the root, and has answered or failed.
  std::atomic<bool> rootWasAsked_ = false;
  std::atomic<bool> stopping_ = false;
};

Host::Implementation::Implementation(HostSettings settings)
    : settings_(checked(std::move(settings))),
      folder_(settings_.mountPoint, settings_.stateDirectory),
      state_(settings_.stateDirectory),
      reserve_(settings_.stateDirectory) {
  bindStorage(settings_);
  protectMemory();
  makeFilesPrivate();
  limitHeaps();
  ignoreHarmlessSignals();
  LogSink::setShared(hostSink(settings_.extensionLog));
  NSFileManager::setDefaultManager(std::make_shared<HostFileManager>(
      systemFiles_, temporaryDirectoryIn(state_.path()), settings_.container));
  loop_ = std::make_unique<async::LoopThread>();
  replica_ = std::make_unique<replica::Replica>(state_.path(), *loop_, replicaOptions(settings_));
  if (settings_.events) teller_ = std::make_unique<EventTeller>(*replica_);
  mount_ = std::make_unique<Mount>(*replica_, mountOptions());
}

Host::Implementation::~Implementation() {
  registration_.reset();
  watch_.reset();
  keeper_.reset();
  watches_.reset();
  if (teller_) teller_->hold();
  mount_.reset();
  teller_.reset();
  events_.answerRequests(changesLeft());
  replica_->stop();
  socket_.reset();
  replica_->waitUntilEnded(kLastWork);
  replica_.reset();
  loop_.reset();
  NSFileManager::setDefaultManager(nullptr);
  LogSink::setShared(nullptr);
}

mount::MountOptions Host::Implementation::mountOptions() {
  mount::MountOptions options;
  options.mountPoint = settings_.mountPoint;
  options.source = "kestrowan:" + settings_.domain;
  options.user = ::geteuid();
  options.group = ::getegid();
  options.noexec = settings_.noexec;
  options.showMarkers = settings_.noIndex;
  options.backgroundPrograms = settings_.backgroundPrograms;
  options.stateDirectory = state_.path();
  options.ended = [this] { events_.setMountEnded(); };
  if (teller_) options.events = teller_->events();
  return options;
}

void Host::Implementation::run(const std::function<bool()>& ready) {
  begin();
  if (!becomeReady(ready)) hurry_ = true;
  serve();
}

void Host::Implementation::begin() {
  if (state_.isRemote()) {
    hostLog(settings_.stateDirectory +
            ": lies on another machine's disk; a local one is safer and faster");
  }
  warn();
  reserve_.giveUp();
  keeper_ = std::make_unique<ProviderKeeper>(
      ProviderKeeper::Functions{
          .make = extensionFactory({settings_.domain, "Kestrowan"}),
          .use = [this](auto provider) { use(std::move(provider)); },
          .isHeld = [this] { return replica_->commands().status(0).held.has_value(); }},
      kHeldInterval);
  watch_ = std::make_unique<BridgeWatch>([this] { return containerPath(*systemFiles_); },
                                         [this] { keeper_->renew(); });
  keeper_->start();
  if (teller_) teller_->start();
  mount_->start();
  if (teller_) {
    teller_->begin(mount_->mountPoint(), mount_->device());
    watches_ = std::make_unique<FolderWatches>(*replica_);
    watches_->start(mount_->device());
  }
  folder_.keep();
  state_.keep();

  auto entry = entryOf(settings_);
  entry.mountPoint = mount_->mountPoint();
  entry.socket = socketPath(settings_);
  entry.process = ::getpid();
  entry.running = true;
  const HostCommands commands(*replica_,
                              {.host = entry,
                               .started = std::time(nullptr),
                               .status = [this] { return status(); },
                               .warnings = [this] { return warnings(); },
                               .events = [this] { return events(); },
                               .isStopping = [this] { return stopping_.load(); },
                               .unmount = [this](bool force) { return answerUnmount(force); }});
  socket_ = std::make_unique<ControlSocket>(
      entry.socket, [commands](const JSONValue& request) { return commands.answer(request); },
      ControlSocket::kPatience, &HostCommands::lane);
  registration_ = std::make_unique<Registration>(entry);
  reserve_.hold();
}

void Host::Implementation::use(std::shared_ptr<NSFileProviderReplicatedExtension> provider) {
  replica_->setProvider(std::move(provider));
  // So that the status says whether it works before a program finds out.
  replica_->start(askForRoot());
}

/// What prevents it is in the status.
Task<void> Host::Implementation::askForRoot() {
  try {
    auto asked = replica_->askForRoot();
    co_await std::move(asked);
  } catch (const NSError&) {
  }
  rootWasAsked_ = true;
  events_.wake();
}

/// Waits until the root is known; false when nobody wants the mount any more.
bool Host::Implementation::becomeReady(const std::function<bool()>& ready) {
  const auto deadline = Clock::now() + kRootPatience;
  while (!rootWasAsked_ && !events_.mountEnded() && events_.signals() == 0 &&
         Clock::now() < deadline) {
    events_.wait(kStep);
  }
  sayHowItBegins();
  if (settings_.logsToFile) {
    logToFile(state_.path() + "/log");
    dateHostLog();
    // The file's readers did not see what the terminal's did.
    news_ = StatusNews();
    warned_.clear();
    sayHowItBegins();
  }
  tellServiceManager("READY=1\nSTATUS=Mounted at " + escapedForDisplay(mount_->mountPoint()));
  return ready();
}

void Host::Implementation::sayHowItBegins() {
  hostLog("mounted at " + mount_->mountPoint());
  if (const auto reason = replica_->commands().status(0).unanswered) {
    hostLog("the server is not reached yet (" + *reason + "); changes are kept and sent later");
  }
  tick();
}

void Host::Implementation::serve() {
  while (true) {
    if (events_.mountEnded()) {
      stopping_ = true;
      hostLog(mount_->mountPoint() + " was unmounted by somebody else");
      finish(Clock::now() + settings_.drain);
      return;
    }
    if (events_.signals() > 0 || hurry_) {
      leaveForSignal();
      return;
    }
    if (auto request = events_.takeUnmountRequest()) {
      if (leaveForRequest(*std::move(request))) return;
      continue;
    }
    events_.wait(kNewsInterval);
    if (Clock::now() - lastNews_ >= kNewsInterval) guarded("the host", [this] { tick(); });
  }
}

/// What is done from time to time.
void Host::Implementation::tick() {
  lastNews_ = Clock::now();
  for (const auto& line : news_.of(status())) hostLog(line);
  warn();
  reserve_.hold();
  if (settings_.logsToFile) limitLogFile(state_.path() + "/log");
}

void Host::Implementation::warn() {
  const auto warning = bridgeWarning(containerPath(*systemFiles_)).value_or("");
  if (warning != warned_ && !warning.empty()) hostLog(warning);
  warned_ = warning;
}

/// With a reason for being held that a person can act upon.
replica::Status Host::Implementation::status() const {
  auto status = statusWithBridge(*replica_, *systemFiles_);
  const auto silence = TransferMonitor::shared().silence();
  if (silence >= kSilence && !status.held && !status.offline) status.silence = silence;
  if (status.held && withoutLinks(settings_.container) != settings_.container) {
    status.held = escapedForDisplay(settings_.container) +
                  " leads to another directory now, which the state was not made for";
  }
  return status;
}

std::vector<std::string> Host::Implementation::warnings() {
  std::vector<std::string> found;
  if (auto warning = bridgeWarning(containerPath(*systemFiles_))) {
    found.push_back(*std::move(warning));
  }
  if (state_.isRemote()) found.push_back("the state directory lies on another machine's disk");
  return found;
}

std::string Host::Implementation::events() const {
  if (!teller_) return "off";
  return teller_->isWorking() ? "on" : "failing";
}

std::int64_t Host::Implementation::answerUnmount(bool force) {
  return events_.postUnmountRequest(force).get();
}

/// Whether the mount has ended; it goes on when it is in use.
bool Host::Implementation::leaveForRequest(UnmountRequest request) {
  stopping_ = true;
  const auto deadline = Clock::now() + settings_.drain;
  try {
    if (request.force) {
      hurry_ = true;
      leaveLazily();
    } else {
      drain(deadline);
      isHurried() ? leaveLazily() : unmount(Mount::Unmounting::whenFree);
    }
  } catch (...) {
    stopping_ = false;
    hurry_ = false;
    const auto error = caughtError();
    request.left.set_exception(std::make_exception_ptr(error));
    hostLog(error.localizedDescription());
    return false;
  }
  say("ending");
  std::int64_t left = 0;
  guarded("the end of the mount", [&] { left = finish(deadline); });
  request.left.set_value(left);
  return true;
}

void Host::Implementation::leaveForSignal() {
  stopping_ = true;
  replica_->refuseNewWork();
  say("ending; a second signal unmounts at once");
  const auto deadline = Clock::now() + settings_.drain;
  drain(deadline);
  const bool wasFree = unmountWhenFree();
  // What its users wrote last is as new as the first change of all.
  finish(wasFree ? deadline : Clock::now() + settings_.drain);
}

/// Waits until everything is sent, while that can be hoped for.
void Host::Implementation::drain(Clock::time_point deadline) {
  const auto left = [&] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  };
  if (isHurried() || left() <= 0ms) return;
  const auto drained = std::make_shared<std::atomic<bool>>(false);
  replica_->start(untilDrained(left(), drained));
  while (!*drained && !isHurried() && left() > 0ms) {
    const auto status = replica_->commands().status(0);
    // Nothing goes out before the server, or a bridge file, is there.
    if (status.offline || status.held) return;
    events_.wait(std::min(kStep, left()));
  }
}

/// What is left is in the status.
Task<void> Host::Implementation::untilDrained(std::chrono::milliseconds limit,
                                              std::shared_ptr<std::atomic<bool>> drained) {
  try {
    auto synced = replica_->commands().waitUntilSynced(limit);
    co_await std::move(synced);
  } catch (const NSError&) {
  }
  *drained = true;
  events_.wake();
}

/// Ends the mount: in order once nobody uses it, lazily when that is asked for. Whether nobody used
/// it.
bool Host::Implementation::unmountWhenFree() {
  std::string said;
  while (!events_.mountEnded()) {
    try {
      if (isHurried()) {
        leaveLazily();
      } else {
        unmount(Mount::Unmounting::whenFree);
      }
      break;
    } catch (...) {
      const auto error = caughtError();
      events_.refuseRequests(std::make_exception_ptr(error));
      if (error.localizedDescription() != said) hostLog(error.localizedDescription());
      said = error.localizedDescription();
      if (isHurried()) break;
    }
    events_.wait(kStep);
  }
  return said.empty();
}

void Host::Implementation::leaveLazily() {
  unmount(Mount::Unmounting::lazily);
}

/// The process that makes event calls must not keep the mount busy.
void Host::Implementation::unmount(Mount::Unmounting how) {
  if (teller_) teller_->hold();
  try {
    mount_->unmount(how);
  } catch (...) {
    if (teller_) teller_->begin(mount_->mountPoint(), mount_->device());
    throw;
  }
}

/// After the mount was taken away: waits for its users, sends what they wrote last, and gives how
/// many changes are left.
std::int64_t Host::Implementation::finish(Clock::time_point deadline) {
  const auto signals = events_.signals();
  const auto usersLeave = Clock::now() + kLazyPatience;
  while (!events_.mountEnded() && Clock::now() < usersLeave && events_.signals() == signals) {
    events_.wait(kStep);
  }
  drain(deadline);
  const auto left = changesLeft();
  say(left == 0 ? "unmounted; nothing is left to send"
                : "unmounted; " + changesText(left) +
                      " could not be sent, and will be after: " + mountCommand(entryOf(settings_)));
  events_.answerRequests(left);
  return left;
}

void Host::Implementation::say(const std::string& text) {
  hostLog(text);
  tellServiceManager("STOPPING=1\nSTATUS=" + text);
}

Host::Host(HostSettings settings) try
    : implementation_(std::make_unique<Implementation>(std::move(settings))) {
} catch (const StorageRefusal&) {
  throw;
} catch (...) {
  throw caughtError();
}

Host::~Host() = default;

void Host::run(const std::function<bool()>& ready) {
  try {
    implementation_->run(ready);
  } catch (...) {
    throw caughtError();
  }
}

}  // namespace kestrowan::host
