#include "replica/Status.h"

namespace kestrowan::replica {

const char* name(SyncState state) {
  switch (state) {
    case SyncState::synced:
      return "synced";
    case SyncState::waiting:
      return "waiting";
    case SyncState::sending:
      return "sending";
    case SyncState::retrying:
      return "retrying";
    case SyncState::refused:
      return "refused";
    case SyncState::localOnly:
      return "local-only";
  }
  return "";
}

}  // namespace kestrowan::replica
