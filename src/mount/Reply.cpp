#include "mount/Reply.h"

#include <cerrno>

#include "mount/CallingProgram.h"
#include "mount/CallingThread.h"
#include "mount/FileStatus.h"

namespace kestrowan::mount {

namespace {

/// The reply that this thread is registering for signals.
thread_local const Reply* registering = nullptr;

}  // namespace

Reply::Reply(fuse_req_t request, Addressing addressing)
    : session_(Session::of(request).shared_from_this()),
      request_(request),
      addressing_(addressing),
      thread_(fuse_req_ctx(request)->pid) {}

std::shared_ptr<const replica::Caller> Reply::caller() const {
  return std::make_shared<CallingThread>(session_->programs(), thread_);
}

Reply::~Reply() {
  fail(EIO);
}

void Reply::allowSignal(OnSignal onSignal) {
  bool signalledBefore = false;
  {
    // The request lives while this is held: who wants to answer it looks here first.
    std::lock_guard lock(registration_);
    if (answered_) return;
    onSignal_ = onSignal;
    session_->channel().addWaiting(*this);
    registered_ = true;
    registering = this;
    fuse_req_interrupt_func(request_, &Reply::interrupted, this);
    registering = nullptr;
    signalledBefore = signalledBefore_;
  }
  if (signalledBefore && (onSignal == OnSignal::ends || isDying(thread_))) fail(EINTR);
}

void Reply::interrupted(fuse_req_t request, void* data) noexcept {
  // Lives until the request is claimed: who else claims it waits until this returns.
  auto* const self = static_cast<Reply*>(data);
  // libfuse calls this with the request's own lock held, under which its answer would free it.
  if (registering == self) {
    self->signalledBefore_ = true;
    return;
  }
  if (self->onSignal_ == OnSignal::endsTheDying && !isDying(self->thread_)) return;
  const auto session = self->session_;
  session->channel().removeWaiting(*self);
  if (self->answered_.exchange(true)) return;
  session->channel().deliver(
      request, [](fuse_req_t interrupted) { return fuse_reply_err(interrupted, EINTR); });
}

bool Reply::claim() {
  if (answered_) return false;
  bool registered = false;
  {
    std::lock_guard lock(registration_);
    if (answered_.exchange(true)) return false;
    registered = registered_;
  }
  if (registered) {
    // Returns when no signal is being looked at any more, and none will be.
    fuse_req_interrupt_func(request_, nullptr, nullptr);
    session_->channel().removeWaiting(*this);
  }
  return true;
}

void Reply::fail(int number) {
  send([number](fuse_req_t request) { return fuse_reply_err(request, number); });
}

void Reply::fail(const std::exception_ptr& exception) {
  const int number = errnoFor(exception, addressing_);
  fail(number == 0 ? EIO : number);
}

void Reply::succeed() {
  send([](fuse_req_t request) { return fuse_reply_err(request, 0); });
}

void Reply::sendEntry(const replica::Attributes& attributes, bool isKept) {
  auto entry = kernelEntry(attributes, session_->replica().files().allocated(attributes),
                           session_->appearance());
  if (!isKept) entry.entry_timeout = 0;
  // Before the answer: the kernel may forget the item before the answer's call has returned.
  session_->replica().files().remember(attributes.rid);
  const bool sent =
      send([&entry](fuse_req_t request) { return fuse_reply_entry(request, &entry); });
  if (!sent) session_->replica().files().forget(attributes.rid, 1);
}

void Reply::sendAttributes(const replica::Attributes& attributes) {
  const auto& appearance = session_->appearance();
  const auto status =
      fileStatus(attributes, session_->replica().files().allocated(attributes), appearance);
  send([&](fuse_req_t request) { return fuse_reply_attr(request, &status, appearance.cacheTime); });
}

void Reply::end(const std::exception_ptr& problem) {
  if (!problem || errnoFor(problem, addressing_) == 0) return succeed();
  fail(problem);
}

Task<void> Reply::answer(std::shared_ptr<Reply> reply, Task<void> task) {
  try {
    co_await std::move(task);
  } catch (...) {
    reply->fail(std::current_exception());
  }
}

}  // namespace kestrowan::mount
