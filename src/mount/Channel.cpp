#include "mount/Channel.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "mount/Reply.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

Channel::Channel(const fuse_lowlevel_ops& operations, void* userData) {
  std::string program = "kestrowan";
  char* words[] = {program.data(), nullptr};
  fuse_args arguments = FUSE_ARGS_INIT(1, words);
  session_ = fuse_session_new(&arguments, &operations, sizeof operations, userData);
  fuse_opt_free_args(&arguments);
  if (session_ == nullptr) throw posixError(EINVAL);
}

Channel::~Channel() {
  fuse_session_destroy(session_);
}

void Channel::attach(UniqueFd device) {
  const auto name = "/dev/fd/" + std::to_string(device.get());
  if (fuse_session_mount(session_, name.c_str()) != 0) throw posixError(EIO);
  // libfuse closes it.
  device.release();
}

void Channel::addWaiting(Reply& reply) {
  std::lock_guard lock(mutex_);
  waiting_.emplace(&reply, reply.weak_from_this());
}

void Channel::removeWaiting(const Reply& reply) {
  std::lock_guard lock(mutex_);
  waiting_.erase(&reply);
}

void Channel::failWaiting() {
  std::vector<std::shared_ptr<Reply>> replies;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [key, waiting] : waiting_) {
      if (auto reply = waiting.lock()) replies.push_back(std::move(reply));
    }
  }
  for (const auto& reply : replies) reply->fail(EIO);
}

void Channel::dropEntry(replica::Rid folder, const std::string& name) {
  // An expired entry is asked for again when it is used next; one that is dropped would also take
  // the path away from whoever works in that folder.
  if (fuse_lowlevel_notify_expire_entry(session_, folder, name.c_str(), name.size(),
                                        FUSE_LL_EXPIRE_ONLY) == -ENOSYS) {
    fuse_lowlevel_notify_inval_entry(session_, folder, name.c_str(), name.size());
  }
}

void Channel::dropItem(replica::Rid item, bool contents) {
  const off_t from = contents ? 0 : -1;
  fuse_lowlevel_notify_inval_inode(session_, item, from, 0);
}

void Channel::close() {
  std::unique_lock lock(closing_);
  isOpen_ = false;
  // Nothing but a descriptor that leads nowhere keeps the number, which libfuse closes at its end.
  std::array<int, 2> ends = {};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
  ::close(ends[0]);
  ::dup3(ends[1], fuse_session_fd(session_), O_CLOEXEC);
  ::close(ends[1]);
}

}  // namespace kestrowan::mount
