#include "support/MemoryAnswers.h"

#include <utility>

namespace kestrowan::test {

using replica::remote::Answer;
using replica::remote::CallAnswers;

class MemoryAnswers::Watch : public CallAnswers {
 public:
  Watch(std::shared_ptr<MemoryAnswers> all, Call call)
      : all_(std::move(all)), call_(std::move(call)) {}

  std::optional<Answer> last() const override {
    std::lock_guard lock(all_->mutex_);
    const auto found = all_->answers_.find(call_);
    if (found == all_->answers_.end()) return std::nullopt;
    return found->second;
  }

 private:
  const std::shared_ptr<MemoryAnswers> all_;
  const Call call_;
};

std::shared_ptr<const CallAnswers> MemoryAnswers::watch() {
  return std::make_shared<Watch>(shared_from_this(), Abandonment::current());
}

void MemoryAnswers::note(const std::shared_ptr<Abandonment>& call,
                         const std::optional<Answer>& answer) {
  if (!call || !answer) return;
  std::lock_guard lock(mutex_);
  std::erase_if(answers_, [](const auto& one) { return one.first.expired(); });
  answers_.insert_or_assign(call, *answer);
}

}  // namespace kestrowan::test
