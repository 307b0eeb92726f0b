#include "replica/store/HistoryEntry.h"

namespace kestrowan::replica {

const char* name(HistoryReason reason) {
  switch (reason) {
    case HistoryReason::replaced:
      return "replaced";
    case HistoryReason::removed:
      return "removed";
    case HistoryReason::updated:
      return "updated";
    case HistoryReason::vanished:
      return "vanished";
    case HistoryReason::discarded:
      return "discarded";
    case HistoryReason::found:
      return "found";
    case HistoryReason::lost:
      return "lost";
  }
  return "";
}

}  // namespace kestrowan::replica
