#include "host/FinishedRequests.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "platform/network/FinishedTransfers.h"

namespace kestrowan::host {

namespace {

using replica::remote::Answer;

bool changesSomething(std::string_view httpMethod) {
  constexpr std::array<std::string_view, 4> kMethods = {"PUT", "MKCOL", "MOVE", "DELETE"};
  return std::find(kMethods.begin(), kMethods.end(), httpMethod) != kMethods.end();
}

class FinishedRequests : public replica::remote::CallAnswers {
 public:
  explicit FinishedRequests(std::shared_ptr<const Abandonment> call) : call_(std::move(call)) {}

  std::optional<Answer> last() const override { return answerTo(call_); }

 private:
  const std::shared_ptr<const Abandonment> call_;
};

}  // namespace

std::shared_ptr<const replica::remote::CallAnswers> watchAnswers() {
  return std::make_shared<FinishedRequests>(Abandonment::current());
}

std::optional<Answer> answerTo(const std::shared_ptr<const Abandonment>& call) {
  const auto found = FinishedTransfers::shared().latestOf(call);
  if (!found || found->httpStatus == 0) return std::nullopt;
  return Answer{found->httpMethod, changesSomething(found->httpMethod), found->httpStatus};
}

}  // namespace kestrowan::host
