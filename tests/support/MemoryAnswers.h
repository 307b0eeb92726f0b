#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/base/Abandonment.h"
#include "replica/remote/CallAnswers.h"

namespace kestrowan::test {

/// What the server in memory answered to the calls of its provider. Shared by the provider and its
/// calls in flight; usable from every thread.
class MemoryAnswers : public std::enable_shared_from_this<MemoryAnswers> {
 public:
  /// Tells of the call of which the current abandonment is.
  std::shared_ptr<const replica::remote::CallAnswers> watch();
  /// The answer to the last request of a call. Nothing is noted without one, or for null.
  void note(const std::shared_ptr<Abandonment>& call,
            const std::optional<replica::remote::Answer>& answer);

 private:
  class Watch;
  using Call = std::weak_ptr<Abandonment>;

  mutable std::mutex mutex_;  // guards what follows
  std::map<Call, replica::remote::Answer, std::owner_less<>> answers_;
};

}  // namespace kestrowan::test
