#include "mount/Mount.h"

#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "mount/DescribedError.h"
#include "mount/Fuse.h"
#include "mount/FuseLog.h"
#include "mount/Fusermount.h"
#include "mount/Holders.h"
#include "mount/KernelLimits.h"
#include "mount/MountPoint.h"
#include "mount/MountTable.h"
#include "mount/Session.h"
#include "platform/base/Threads.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

namespace {

/// In fusermount3's list of options, a comma ends a value unless it is escaped.
std::string escapedOption(const std::string& value) {
  std::string escaped;
  for (const char character : value) {
    if (character == ',' || character == '\\') escaped += '\\';
    escaped += character;
  }
  return escaped;
}

std::string optionText(const MountOptions& options) {
  return "default_permissions,nosuid,nodev,subtype=kestrowan,fsname=" +
         escapedOption(options.source) + (options.noexec ? ",noexec" : "");
}

/// Makes system calls of a thread that gets the signal return early.
void prepareWakeUpSignal() {
  struct sigaction action = {};
  if (::sigaction(SIGURG, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
  action.sa_handler = [](int) {};
  ::sigaction(SIGURG, &action, nullptr);
}

}  // namespace

class Mount::Implementation {
 public:
  Implementation(replica::Replica& replica, MountOptions options)
      : replica_(replica),
        options_(std::move(options)),
        point_(options_.mountPoint, options_.user, options_.stateDirectory) {}

  ~Implementation() {
    if (loop_.joinable()) endByForce();
  }

  void start();
  void unmount(Unmounting how);
  bool waitUntilUnmounted(std::optional<std::chrono::milliseconds> limit);
  void endByForce();

  const std::string& mountPoint() const { return point_.path(); }
  const std::string& device() const { return device_; }

 private:
  void mount();
  void run(std::shared_ptr<Session> session);
  void tearDown(Session& session);
  bool isInPlace() const;

  replica::Replica& replica_;
  const MountOptions options_;
  MountPoint point_;
  /// The device of the mount, by which it is told from others at the same place.
  std::string device_;
  std::thread loop_;

  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::shared_ptr<Session> session_;
  bool hasEnded_ = false;
};

void Mount::Implementation::start() {
  checkKernelLimits();
  installFuseLog();
  prepareWakeUpSignal();
  const Appearance appearance{options_.user, options_.group,
                              std::chrono::duration<double>(options_.cacheTime).count()};
  auto session = std::make_shared<Session>(
      replica_, appearance, std::make_shared<const ProgramKinds>(options_.backgroundPrograms),
      MarkerFiles(options_.showMarkers), options_.events);
  session_ = session;
  mount();
  try {
    session->invalidation().start();
    replica_.setObserver(session.get());
    loop_ = startThread("the mount", [this, session] { run(session); });
  } catch (...) {
    session->setEnded();
    tearDown(*session);
    session_.reset();
    throw;
  }
  if (!session->waitUntilReady()) {
    throw describedError(EIO,
                         "the mount at " + point_.path() + " ended at once: " + takeFuseMessage());
  }
}

void Mount::Implementation::mount() {
  takeFuseMessage();
  point_.open();
  try {
    session_->channel().attach(fusermountMount(point_.path(), optionText(options_)));
  } catch (const NSError& error) {
    point_.seal();
    point_.restore();
    session_.reset();
    throw describedError(EIO,
                         "cannot mount at " + point_.path() + ": " + error.localizedDescription());
  }
  point_.seal();
  if (const auto entry = mountAt(point_.path())) device_ = entry->device;
}

void Mount::Implementation::run(std::shared_ptr<Session> session) {
  auto* const config = fuse_loop_cfg_create();
  if (config != nullptr) {
    fuse_loop_cfg_set_clone_fd(config, 0);
    fuse_loop_cfg_set_max_threads(config, options_.threads);
    fuse_session_loop_mt(session->channel().session(), config);
    fuse_loop_cfg_destroy(config);
  }
  session->setEnded();
  guarded("the mount", [&] { tearDown(*session); });
  session.reset();
  {
    std::lock_guard lock(mutex_);
    session_.reset();
    hasEnded_ = true;
    changed_.notify_all();
  }
  if (options_.ended) options_.ended();
}

/// What the kernel had open it may never release, and who still waits gets an answer now.
void Mount::Implementation::tearDown(Session& session) {
  auto& channel = session.channel();
  replica_.setObserver(nullptr);
  channel.failWaiting();
  session.invalidation().stop();
  session.closeHandles();
  try {
    // A connection that was cut leaves its mount in place.
    if (isInPlace()) fusermountUnmount(point_.path(), true);
    if (!isInPlace()) point_.restore();
  } catch (...) {
    // The next mount frees the place.
  }
  channel.close();
}

bool Mount::Implementation::isInPlace() const {
  const auto entry = mountAt(point_.path());
  return entry && entry->type == kMountType && entry->device == device_;
}

void Mount::Implementation::unmount(Unmounting how) {
  {
    std::lock_guard lock(mutex_);
    if (!session_ || hasEnded_) return;
  }
  const auto complaint = fusermountUnmount(point_.path(), how == Unmounting::lazily);
  if (complaint.empty() || !isInPlace()) return;
  if (complaint.find("busy") == std::string::npos) throw describedError(EIO, complaint);
  auto holders = holdersOf(point_.path());
  std::erase_if(holders, [](const Holder& holder) { return holder.process == ::getpid(); });
  throw describedError(EBUSY, point_.path() + " is in use by " + describe(holders) +
                                  "; close what is open there and try again");
}

bool Mount::Implementation::waitUntilUnmounted(std::optional<std::chrono::milliseconds> limit) {
  std::unique_lock lock(mutex_);
  const auto ended = [this] { return hasEnded_; };
  if (limit) return changed_.wait_for(lock, *limit, ended);
  changed_.wait(lock, ended);
  return true;
}

void Mount::Implementation::endByForce() {
  constexpr std::chrono::milliseconds kPause{10};
  try {
    unmount(Unmounting::lazily);
  } catch (const NSError&) {
    // The connection ends all the same.
  }
  {
    std::lock_guard lock(mutex_);
    if (session_) fuse_session_exit(session_->channel().session());
  }
  // libfuse looks whether to end only when its waiting is interrupted, and may just be about to
  // wait.
  while (!waitUntilUnmounted(kPause)) ::pthread_kill(loop_.native_handle(), SIGURG);
  loop_.join();
}

Mount::Mount(replica::Replica& replica, MountOptions options)
    : implementation_(std::make_unique<Implementation>(replica, std::move(options))) {}

Mount::~Mount() = default;

void Mount::start() {
  implementation_->start();
}

const std::string& Mount::mountPoint() const {
  return implementation_->mountPoint();
}

const std::string& Mount::device() const {
  return implementation_->device();
}

void Mount::unmount(Unmounting how) {
  implementation_->unmount(how);
}

bool Mount::waitUntilUnmounted(std::optional<std::chrono::milliseconds> limit) {
  return implementation_->waitUntilUnmounted(limit);
}

}  // namespace kestrowan::mount
