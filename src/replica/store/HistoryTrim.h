#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "replica/store/HistoryTable.h"

namespace kestrowan::replica {

/// How many files of the history there are, and how many bytes of the disk they take; and those of
/// them that the provider never had, and that are to be sent.
struct HistoryUsage {
  std::int64_t files = 0;
  std::int64_t bytes = 0;
  std::int64_t unconfirmedFiles = 0;
  std::int64_t unconfirmedBytes = 0;
};

/// One way through the history that finds what has to go: what is too old; and beyond the limit
/// first what is never sent, then what the provider surely still has, then a file that takes more
/// than half of the limit, then what it had once, the oldest first. What the provider never had
/// goes by age alone, and leaves the rest at least a quarter of the limit, so that one large file
/// never empties the history. Not thread-safe; throws as the table does.
class HistoryTrim {
 public:
  /// Bytes; and seconds since 1970-01-01 UTC, before which everything goes.
  struct Limits {
    std::int64_t bytes = 0;
    std::int64_t before = 0;
  };
  /// Whether the provider surely has the contents at present.
  using Question = std::function<bool(const HistoryEntry&)>;

  HistoryTrim(HistoryTable& table, Limits limits);

  /// How many rows one step looks at.
  static constexpr std::size_t kStep = 256;
  bool isDone() const { return phase_ == kPhases.size(); }
  /// One step in two: reads the next rows; and gives those of them that have to go, without a look
  /// at the table. `usage` is as it is without what was given before.
  std::vector<HistoryEntry> next(const HistoryUsage& usage);
  std::vector<HistoryEntry> choose(std::vector<HistoryEntry> page, const HistoryUsage& usage,
                                   const Question& isStillThere);

 private:
  enum class Rule : std::uint8_t { tooOld, all, stillThere, large };
  struct Phase {
    Confirmed confirmed;
    Rule rule;
  };
  static const std::vector<Phase> kPhases;

  std::int64_t excess(const HistoryUsage& usage) const;
  bool mustGo(const HistoryEntry& entry, Rule rule, const Question& isStillThere) const;
  void goOn();

  HistoryTable& table_;
  const Limits limits_;
  std::size_t phase_ = 0;
  HistoryTable::Position position_;
};

}  // namespace kestrowan::replica
