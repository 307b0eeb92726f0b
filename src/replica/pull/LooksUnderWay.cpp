#include "replica/pull/LooksUnderWay.h"

#include <algorithm>
#include <utility>

#include "platform/base/Threads.h"

namespace kestrowan::replica::pull {

using model::ItemNumber;

LooksUnderWay::Mark::Mark(LooksUnderWay& looks, std::vector<ItemNumber> folders)
    : looks_(looks), one_(looks.looks_.insert(looks.looks_.end(), {std::move(folders), {}})) {}

LooksUnderWay::Mark::~Mark() {
  for (const auto& waiter : one_->waiters) untilThereIsMemory([&] { waiter->resolve(); });
  looks_.looks_.erase(one_);
}

bool LooksUnderWay::isAtAny(const One& one, const std::vector<ItemNumber>& folders) {
  return std::find_first_of(one.folders.begin(), one.folders.end(), folders.begin(),
                            folders.end()) != one.folders.end();
}

bool LooksUnderWay::isAtAny(const std::vector<ItemNumber>& folders) const {
  return std::any_of(looks_.begin(), looks_.end(),
                     [&](const One& one) { return isAtAny(one, folders); });
}

Task<void> LooksUnderWay::end(std::vector<ItemNumber> folders) {
  std::vector<std::shared_ptr<OneShot<void>>> ends;
  for (One& one : looks_) {
    if (!isAtAny(one, folders)) continue;
    ends.push_back(std::make_shared<OneShot<void>>(loop_));
    one.waiters.push_back(ends.back());
  }
  for (auto& each : ends) {
    auto ended = OneShot<void>::result(std::move(each));
    co_await std::move(ended);
  }
}

}  // namespace kestrowan::replica::pull
