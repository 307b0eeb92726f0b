#include "host/FolderWatches.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "host/DesktopSession.h"
#include "host/InotifyWatches.h"
#include "platform/base/Threads.h"

namespace kestrowan::host {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPause = 4s;
/// With very many processes the looks take no more than so little of the time: one part of these.
constexpr int kShare = 400;
/// How often watched folders are listed, when a user may see them change and otherwise.
constexpr milliseconds kDesktopInterval = 10s;
constexpr milliseconds kUsualInterval = 30s;

}  // namespace

FolderWatches::~FolderWatches() {
  {
    std::lock_guard lock(mutex_);
    isEnding_ = true;
    ending_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void FolderWatches::start(const std::string& device) {
  device_ = kernelDevice(device);
  if (device_ != 0) thread_ = startThread("the look for watches", [this] { run(); });
}

void FolderWatches::run() {
  std::unique_lock lock(mutex_);
  while (!isEnding_) {
    lock.unlock();
    const auto began = Clock::now();
    guarded("the look for watches", [this] { look(); });
    const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - began);
    lock.lock();
    ending_.wait_for(lock, std::max(kPause, took * kShare), [this] { return isEnding_; });
  }
}

void FolderWatches::look() const {
  const auto user = ::geteuid();
  const auto items = watchedItems(user, device_, "/proc");
  const bool isSeen = !items.empty() && hasActiveDesktop(user);
  replica_.files().setWatched(items, isSeen ? kDesktopInterval : kUsualInterval);
}

}  // namespace kestrowan::host
