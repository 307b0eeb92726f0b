#include "host/HostEvents.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "mount/DescribedError.h"

namespace kestrowan::host {

HostEvents::HostEvents() : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeUp_) throw systemError(errno, "host");
}

void HostEvents::setMountEnded() {
  {
    std::lock_guard lock(mutex_);
    mountEnded_ = true;
  }
  wake();
}

std::future<std::int64_t> HostEvents::postUnmountRequest(bool force) {
  UnmountRequest request;
  request.force = force;
  auto future = request.left.get_future();
  {
    std::lock_guard lock(mutex_);
    if (answer_) {
      request.left.set_value(*answer_);
      return future;
    }
    requests_.push_back(std::move(request));
  }
  wake();
  return future;
}

void HostEvents::wait(std::chrono::milliseconds limit) {
  std::array<pollfd, 2> awaited = {
      {{stopSignals_.descriptor(), POLLIN, 0}, {wakeUp_.get(), POLLIN, 0}}};
  ::poll(awaited.data(), awaited.size(), static_cast<int>(limit.count()));
  std::uint64_t count;
  while (::read(wakeUp_.get(), &count, sizeof count) > 0) {
  }
  while (stopSignals_.take() != 0) ++signals_;
}

bool HostEvents::mountEnded() const {
  std::lock_guard lock(mutex_);
  return mountEnded_;
}

std::optional<UnmountRequest> HostEvents::takeUnmountRequest() {
  std::lock_guard lock(mutex_);
  if (requests_.empty()) return std::nullopt;
  std::optional<UnmountRequest> request(std::move(requests_.front()));
  requests_.pop_front();
  return request;
}

bool HostEvents::forceIsWanted() const {
  std::lock_guard lock(mutex_);
  return std::any_of(requests_.begin(), requests_.end(),
                     [](const UnmountRequest& request) { return request.force; });
}

void HostEvents::refuseRequests(const std::exception_ptr& reason) {
  std::lock_guard lock(mutex_);
  std::erase_if(requests_, [&](UnmountRequest& request) {
    if (!request.force) request.left.set_exception(reason);
    return !request.force;
  });
}

void HostEvents::answerRequests(std::int64_t left) {
  std::lock_guard lock(mutex_);
  answer_ = left;
  for (auto& request : requests_) request.left.set_value(left);
  requests_.clear();
}

void HostEvents::wake() const {
  const std::uint64_t one = 1;
  while (::write(wakeUp_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

}  // namespace kestrowan::host
