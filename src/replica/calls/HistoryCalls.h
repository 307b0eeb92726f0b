#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Task.h"
#include "replica/CommandCalls.h"
#include "replica/calls/Names.h"
#include "replica/calls/NewWork.h"
#include "replica/calls/Rooms.h"

namespace kestrowan::replica::calls {

/// What commands ask of the history. The calls are documented in `CommandCalls`. Usable from every
/// thread. Throws `NSError`.
class HistoryCalls {
 public:
  HistoryCalls(const Rooms& rooms, Names& names, const NewWork& newWork)
      : rooms_(rooms), names_(names), newWork_(newWork) {}

  HistoryList list(const HistoryFilter& filter, std::size_t most) const;
  HistoryUsage clear(const HistoryFilter& filter);
  Task<std::string> restore(ContentNumber entry, model::ItemNumber folder, std::string name,
                            NameTaken ifTaken);

 private:
  using Visit = std::function<void(std::vector<HistoryEntry>)>;
  void visit(const HistoryFilter& filter, const Visit& visit) const;
  model::ItemNumber add(model::Edit& edit, const model::Place& place, NameTaken ifTaken,
                        const HistoryEntry& entry, model::Content copy) const;

  const Rooms& rooms_;
  Names& names_;
  const NewWork& newWork_;
};

}  // namespace kestrowan::replica::calls
