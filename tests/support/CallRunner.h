#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "async/Loop.h"
#include "platform/fileprovider/NSFileProviderItem.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSURL.h"
#include "support/Faults.h"
#include "support/MemoryAnswers.h"

namespace kestrowan::test {

/// What a call of the provider in memory came to.
struct Reply {
  std::optional<NSError> error;
  NSFileProviderItemPtr item;
  std::optional<NSURL> file;
  std::vector<NSFileProviderItemPtr> items;
  /// Of the server, to the last request; absent where that is not known.
  std::optional<replica::remote::Answer> answer;
};

/// Runs the calls of the provider in memory on a loop: late, with the faults that the test wants,
/// and writes them down. Shared by the provider and the calls in flight; usable from every thread.
class CallRunner : public std::enable_shared_from_this<CallRunner> {
 public:
  /// A call's own work. Throws `NSError`.
  class Requests;
  using Work = std::function<void(Requests& requests, Reply& reply)>;
  using Complete = std::function<void(const Reply& reply)>;

  explicit CallRunner(async::Loop& loop)
      : loop_(loop), answers_(std::make_shared<MemoryAnswers>()) {}

  MemoryAnswers& answers() const { return *answers_; }

  /// With a `refusal`, that is the answer, and no server is asked.
  void run(const Call& call, Work work, Complete complete,
           std::optional<NSError> refusal = std::nullopt);

  void setLatency(std::chrono::milliseconds latency);
  void setDown(bool isDown);
  void setFaults(FaultHook hook);
  std::size_t releaseHung();
  void noteViolation(std::string text);
  void noteInvalidation();

  std::vector<Call> calls() const;
  void clearCalls();
  std::size_t running() const;
  std::size_t mostAtOnce(CallKind kind) const;
  std::vector<std::string> violations() const;
  bool isInvalidated() const;

 private:
  struct Count {
    std::size_t now = 0;
    std::size_t most = 0;
  };

  Reply reply(CallKind kind, const Work& work, const Fault& fault) const;
  void finish(CallKind kind, const Complete& complete, const Reply& reply);
  bool isDown() const;

  async::Loop& loop_;
  const std::shared_ptr<MemoryAnswers> answers_;
  mutable std::mutex mutex_;
  // Guarded by mutex_, as is all below.
  std::chrono::milliseconds latency_{0};
  bool isDown_ = false;
  bool isInvalidated_ = false;
  FaultHook hook_;
  std::vector<Call> calls_;
  std::map<CallKind, Count> counts_;
  std::vector<async::Loop::Function> hung_;
  std::vector<std::string> violations_;
};

/// The requests of one call, on whose way faults lie.
class CallRunner::Requests {
 public:
  explicit Requests(const Fault& fault) : fault_(fault) {}

  const Fault& fault() const { return fault_; }
  /// To be called behind the first request, when others follow. Throws what ends the call there.
  void firstIsDone() const;

 private:
  const Fault& fault_;
};

}  // namespace kestrowan::test
