#include "replica/store/HistoryTrim.h"

#include <algorithm>
#include <utility>

namespace kestrowan::replica {

const std::vector<HistoryTrim::Phase> HistoryTrim::kPhases = {
    {Confirmed::notSent, Rule::tooOld},  {Confirmed::once, Rule::tooOld},
    {Confirmed::never, Rule::tooOld},    {Confirmed::notSent, Rule::all},
    {Confirmed::once, Rule::stillThere}, {Confirmed::once, Rule::large},
    {Confirmed::once, Rule::all},
};

HistoryTrim::HistoryTrim(HistoryTable& table, Limits limits) : table_(table), limits_(limits) {}

/// How much of what may go is too much.
std::int64_t HistoryTrim::excess(const HistoryUsage& usage) const {
  const auto room = std::max(limits_.bytes - usage.unconfirmedBytes, limits_.bytes / 4);
  return usage.bytes - usage.unconfirmedBytes - room;
}

bool HistoryTrim::mustGo(const HistoryEntry& entry, Rule rule, const Question& isStillThere) const {
  switch (rule) {
    case Rule::tooOld:
      return entry.at < limits_.before && entry.reason != HistoryReason::lost;
    case Rule::all:
      return true;
    case Rule::stillThere:
      return isStillThere(entry);
    case Rule::large:
      return entry.allocated > limits_.bytes / 2;
  }
  return false;
}

void HistoryTrim::goOn() {
  ++phase_;
  position_ = {};
}

std::vector<HistoryEntry> HistoryTrim::next(const HistoryUsage& usage) {
  if (isDone()) return {};
  const auto [confirmed, rule] = kPhases[phase_];
  if (rule != Rule::tooOld && excess(usage) <= 0) {
    phase_ = kPhases.size();
    return {};
  }
  return table_.page(confirmed, position_, kStep);
}

std::vector<HistoryEntry> HistoryTrim::choose(std::vector<HistoryEntry> page,
                                              const HistoryUsage& usage,
                                              const Question& isStillThere) {
  std::vector<HistoryEntry> toGo;
  if (isDone()) return toGo;
  const Rule rule = kPhases[phase_].rule;
  const bool byAge = rule == Rule::tooOld;
  std::int64_t left = excess(usage);
  const bool isLast = page.size() < kStep;
  // The rows come in the order of their age.
  const bool endsYoung = byAge && !page.empty() && page.back().at >= limits_.before;
  if (!page.empty()) position_ = {page.back().at, page.back().content};
  for (auto& entry : page) {
    if (!byAge && left <= 0) break;
    if (!mustGo(entry, rule, isStillThere)) continue;
    left -= entry.allocated;
    toGo.push_back(std::move(entry));
  }
  if (isLast || endsYoung) goOn();
  return toGo;
}

}  // namespace kestrowan::replica
