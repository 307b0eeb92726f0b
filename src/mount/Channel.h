#pragma once

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "mount/Fuse.h"
#include "mount/Invalidation.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

class Reply;

/// The connection to the kernel, and the requests on it that wait for their answers. Lives until
/// the last of them has been answered. Usable from every thread.
class Channel : public KernelCache {
 public:
  /// `userData` is what the requests' `fuse_req_userdata` gives. Throws `NSError` when libfuse
  /// makes no session.
  Channel(const fuse_lowlevel_ops& operations, void* userData);
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel() override;

  /// Takes over the connection to the kernel, which mounting gave. Once. Throws `NSError`.
  void attach(UniqueFd device);

  fuse_session* session() const { return session_; }

  /// Answers `request` with `send`, which calls one of libfuse's reply functions and gives its
  /// result. False when the kernel did not take the answer.
  template <typename Send>
  bool deliver(fuse_req_t request, Send&& send) {
    std::shared_lock lock(closing_);
    if (isOpen_) return send(request) == 0;
    fuse_reply_none(request);
    return false;
  }

  void addWaiting(Reply& reply);
  void removeWaiting(const Reply& reply);
  /// Answers every waiting request with EIO.
  void failWaiting();

  void dropEntry(replica::Rid folder, const std::string& name) override;
  void dropItem(replica::Rid item, bool contents) override;

  /// Cuts the connection: what is still open in the mount fails, and answers go nowhere. Only when
  /// no more requests are received, and nothing is dropped any more.
  void close();

 private:
  fuse_session* session_;
  /// Held to close the connection, so that no answer is written to whatever gets its descriptor.
  std::shared_mutex closing_;
  bool isOpen_ = true;

  std::mutex mutex_;  // guards what follows
  std::unordered_map<const Reply*, std::weak_ptr<Reply>> waiting_;
};

}  // namespace kestrowan::mount
