#pragma once

#include <map>
#include <vector>

#include "platform/foundation/NSError.h"
#include "replica/model/Journal.h"

namespace kestrowan::test {

/// A journal that keeps its rows in memory, as they would be found after a restart.
class MemoryJournal : public replica::model::Journal {
 public:
  void write(const replica::model::Changes& changes) override;

  /// The next writing throws this, once, and writes nothing.
  void failOnce(NSError error) { error_ = std::move(error); }

  const std::map<replica::model::ItemNumber, replica::model::Item>& items() const { return items_; }
  const std::map<replica::model::IntentNumber, replica::model::Intent>& intents() const {
    return intents_;
  }
  /// What left its item, in the order of the edits.
  const std::vector<replica::model::Left>& history() const { return history_; }
  unsigned writes() const { return writes_; }

 private:
  std::map<replica::model::ItemNumber, replica::model::Item> items_;
  std::map<replica::model::IntentNumber, replica::model::Intent> intents_;
  std::vector<replica::model::Left> history_;
  std::optional<NSError> error_;
  unsigned writes_ = 0;
};

}  // namespace kestrowan::test
