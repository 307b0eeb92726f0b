#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "mount/Errno.h"
#include "mount/EventRequests.h"
#include "mount/Fuse.h"
#include "mount/Session.h"
#include "platform/base/Afterwards.h"
#include "platform/base/Task.h"
#include "replica/Replica.h"

namespace kestrowan::mount {

/// What a signal to the waiting program does to its request.
enum class OnSignal {
  /// It ends with EINTR; what was begun goes on.
  ends,
  /// It ends only for a program that is about to die: who changes names must not be told that
  /// nothing happened while it does. Only for requests that wait for a short time.
  endsTheDying,
};

/// One request of the kernel, answered exactly once: by what it was waiting for, by a signal, or,
/// when everybody has let go of it, with EIO. Shared by those who may answer it. Usable from every
/// thread; nothing here waits.
class Reply : public std::enable_shared_from_this<Reply> {
 public:
  Reply(fuse_req_t request, Addressing addressing);
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  ~Reply();

  Session& session() const { return *session_; }
  /// The program that waits for the answer.
  std::shared_ptr<const replica::Caller> caller() const;

  /// Lets a signal answer the request. Called last by the thread that received it, once whatever
  /// will answer it has been set going.
  void allowSignal(OnSignal onSignal);

  /// Answers with `send`, which gets the request and gives the result of the libfuse function that
  /// it calls; what it throws instead is the answer. False when the request has its answer already
  /// or the kernel does not want one any more.
  template <typename Send>
  bool send(Send&& send) {
    if (!claim()) return false;
    return session_->channel().deliver(request_, [&](fuse_req_t request) {
      try {
        return send(request);
      } catch (...) {
        return fuse_reply_err(request, errnoFor(std::current_exception(), addressing_));
      }
    });
  }

  void fail(int number);
  void fail(const std::exception_ptr& exception);
  /// For requests that are answered by nothing but success.
  void succeed();

  /// Answers with an entry of a folder, which the kernel then knows once more, and does not keep
  /// unless `isKept` says so.
  void sendEntry(const replica::Attributes& attributes, bool isKept = true);
  void sendAttributes(const replica::Attributes& attributes);

  /// Answers with the problem, or with success when there is none: null, or one that is no failure,
  /// because what the provider excludes stays here.
  void end(const std::exception_ptr& problem);

  /// Awaits `task`, which answers; what it throws is the answer.
  static Task<void> answer(std::shared_ptr<Reply> reply, Task<void> task);

  /// Runs `action`; what it throws is the answer.
  template <typename Action>
  void guard(Action&& action) noexcept {
    try {
      action();
    } catch (...) {
      fail(std::current_exception());
    }
  }

 private:
  static void interrupted(fuse_req_t request, void* data) noexcept;

  /// True for the first who wants to answer.
  bool claim();

  const std::shared_ptr<Session> session_;
  const fuse_req_t request_;
  const Addressing addressing_;
  const pid_t thread_;

  std::atomic<bool> answered_ = false;
  /// Held while the request is registered for signals, and to look whether it is.
  std::mutex registration_;
  bool registered_ = false;
  // Written before the registration.
  OnSignal onSignal_ = OnSignal::ends;
  /// Whether the signal came before the registration did. Used by the registering thread alone.
  bool signalledBefore_ = false;
};

/// Answers `request` by the coroutine that `handle` makes of the reply, as a shared pointer; what
/// either throws is the answer. The coroutine begins at once and may wait for what the replica's
/// tasks wait for. A signal may answer meanwhile.
template <typename Handle>
void serve(fuse_req_t request, Addressing addressing, OnSignal onSignal, Handle&& handle) noexcept {
  if (isEventRequest(request)) return refuseEventRequest(request);
  const Afterwards afterwards;
  std::shared_ptr<Reply> reply;
  try {
    reply = std::make_shared<Reply>(request, addressing);
  } catch (...) {
    fuse_reply_err(request, ENOMEM);
    return;
  }
  reply->guard([&] {
    reply->session().replica().start(Reply::answer(reply, handle(reply)));
    reply->allowSignal(onSignal);
  });
}

/// The same for a request that `handle` answers before it returns, as the last thing that it does.
template <typename Handle>
void serveAtOnce(fuse_req_t request, Addressing addressing, Handle&& handle) noexcept {
  if (isEventRequest(request)) return refuseEventRequest(request);
  try {
    handle();
  } catch (...) {
    fuse_reply_err(request, errnoFor(std::current_exception(), addressing));
  }
}

}  // namespace kestrowan::mount
