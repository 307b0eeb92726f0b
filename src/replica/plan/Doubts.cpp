#include "replica/plan/Doubts.h"

#include <algorithm>

namespace kestrowan::replica::plan {

std::optional<model::Time> Doubts::next() const {
  std::optional<model::Time> result;
  const auto add = [&](model::Time time) { result = std::min(result.value_or(time), time); };
  for (const auto& [item, since] : missing) add(since + kSecondLook);
  for (const auto& [folder, suspicion] : suspected) add(suspicion.since + kSuspicionTime);
  return result;
}

}  // namespace kestrowan::replica::plan
