#include "support/CallRunner.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "platform/fileprovider/NSFileProviderError.h"

namespace kestrowan::test {

namespace {

NSError errorOf(const Fault& fault) {
  if (fault.httpStatus && !fault.error) {
    return NSFileProviderError(NSFileProviderErrorCode::serverUnreachable);
  }
  return fault.error.value_or(NSError(NSURLErrorDomain, NSURLErrorTimedOut));
}

std::optional<replica::remote::Answer> answerOf(CallKind kind, const Fault& fault) {
  if (!fault.httpStatus) return std::nullopt;
  const bool isChange =
      kind == CallKind::createItem || kind == CallKind::modifyItem || kind == CallKind::deleteItem;
  return replica::remote::Answer{isChange ? "CHANGE" : "LOOK", isChange, *fault.httpStatus};
}

void change(const Fault& fault, NSFileProviderItemPtr& item) {
  const auto* known = dynamic_cast<const MemoryItem*>(item.get());
  if (!fault.itemChange || known == nullptr) return;
  auto changed = std::make_shared<MemoryItem>(*known);
  fault.itemChange(*changed);
  item = std::move(changed);
}

}  // namespace

void CallRunner::Requests::firstIsDone() const {
  if (fault_.afterFirstRequest) fault_.afterFirstRequest();
  if (fault_.effect == Fault::Effect::firstRequest) throw errorOf(fault_);
}

Reply CallRunner::reply(CallKind kind, const Work& work, const Fault& fault) const {
  Reply reply;
  if (isDown()) {
    reply.error = NSError(NSURLErrorDomain, NSURLErrorCannotConnectToHost);
    return reply;
  }
  if (fault.effect == Fault::Effect::none) {
    reply.error = errorOf(fault);
    reply.answer = answerOf(kind, fault);
    return reply;
  }
  try {
    Requests requests(fault);
    work(requests, reply);
    if (fault.error || fault.httpStatus) reply.error = errorOf(fault);
    reply.answer = answerOf(kind, fault);
    change(fault, reply.item);
    for (auto& item : reply.items) change(fault, item);
  } catch (const NSError& error) {
    reply.error = error;
    if (fault.httpStatus) reply.answer = answerOf(kind, fault);
  }
  return reply;
}

void CallRunner::run(const Call& call, Work work, Complete complete,
                     std::optional<NSError> refusal) {
  FaultHook hook;
  std::chrono::milliseconds latency;
  {
    std::lock_guard lock(mutex_);
    calls_.push_back(call);
    auto& count = counts_[call.kind];
    count.most = std::max(count.most, ++count.now);
    hook = hook_;
    latency = latency_;
  }
  if (refusal) {
    loop_.post([self = shared_from_this(), kind = call.kind, complete = std::move(complete),
                answer = Reply{.error = refusal}] { self->finish(kind, complete, answer); });
    return;
  }
  const Fault fault = hook ? hook(call) : Fault{};
  loop_.postAfter(latency + fault.delay, [self = shared_from_this(), kind = call.kind, fault,
                                          caller = Abandonment::current(), work = std::move(work),
                                          complete = std::move(complete)] {
    auto answer = self->reply(kind, work, fault);
    self->answers_->note(caller, answer.answer);
    if (!fault.hangs) return self->finish(kind, complete, answer);
    std::lock_guard lock(self->mutex_);
    // Without the runner, which would hold itself.
    self->hung_.push_back(
        [runner = self.get(), kind, complete, answer] { runner->finish(kind, complete, answer); });
  });
}

void CallRunner::finish(CallKind kind, const Complete& complete, const Reply& reply) {
  {
    std::lock_guard lock(mutex_);
    --counts_[kind].now;
  }
  complete(reply);
}

std::size_t CallRunner::releaseHung() {
  std::vector<async::Loop::Function> hung;
  {
    std::lock_guard lock(mutex_);
    hung.swap(hung_);
  }
  for (auto& one : hung) {
    loop_.post([self = shared_from_this(), finishOne = std::move(one)] { finishOne(); });
  }
  return hung.size();
}

void CallRunner::setLatency(std::chrono::milliseconds latency) {
  std::lock_guard lock(mutex_);
  latency_ = latency;
}

void CallRunner::setDown(bool isDown) {
  std::lock_guard lock(mutex_);
  isDown_ = isDown;
}

bool CallRunner::isDown() const {
  std::lock_guard lock(mutex_);
  return isDown_;
}

void CallRunner::setFaults(FaultHook hook) {
  std::lock_guard lock(mutex_);
  hook_.swap(hook);
}

void CallRunner::noteViolation(std::string text) {
  std::lock_guard lock(mutex_);
  violations_.push_back(std::move(text));
}

void CallRunner::noteInvalidation() {
  std::lock_guard lock(mutex_);
  isInvalidated_ = true;
}

std::vector<Call> CallRunner::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

void CallRunner::clearCalls() {
  std::lock_guard lock(mutex_);
  calls_.clear();
  for (auto& [kind, count] : counts_) count.most = count.now;
}

std::size_t CallRunner::running() const {
  std::lock_guard lock(mutex_);
  std::size_t sum = 0;
  for (const auto& [kind, count] : counts_) sum += count.now;
  return sum;
}

std::size_t CallRunner::mostAtOnce(CallKind kind) const {
  std::lock_guard lock(mutex_);
  const auto found = counts_.find(kind);
  return found == counts_.end() ? 0 : found->second.most;
}

std::vector<std::string> CallRunner::violations() const {
  std::lock_guard lock(mutex_);
  return violations_;
}

bool CallRunner::isInvalidated() const {
  std::lock_guard lock(mutex_);
  return isInvalidated_;
}

}  // namespace kestrowan::test
