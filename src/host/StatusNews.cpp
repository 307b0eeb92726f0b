#include "host/StatusNews.h"

#include <utility>

namespace kestrowan::host {

std::vector<std::string> StatusNews::of(const replica::Status& status) {
  std::vector<std::string> news;
  if (std::exchange(offline_, status.offline) != status.offline) {
    news.emplace_back(status.offline
                          ? "the server cannot be reached; changes are kept and sent later"
                          : "the server can be reached again");
  }
  if (std::exchange(silent_, status.silence.has_value()) != status.silence.has_value()) {
    news.emplace_back(status.silence ? "the server is silent: no answer for " +
                                           std::to_string(status.silence->count()) + " s"
                                     : "the server is silent no more");
  }
  if (held_ != status.held) {
    news.push_back(status.held ? "held until the bridge file changes: " + *status.held
                               : "the bridge file works again");
    held_ = status.held;
  }
  for (const auto& conflict : status.conflicts) {
    if (conflicts_.insert(conflict.path).second) {
      news.push_back("both sides had changed; the version from here is now " + conflict.path);
    }
  }
  std::set<std::string> refused;
  for (const auto& item : status.pending) {
    if (item.state != replica::SyncState::refused) continue;
    refused.insert(item.path);
    if (refused_.contains(item.path)) continue;
    news.push_back("refused: " + item.path + " (" + item.changes + ")" +
                   (item.failure ? ": " + item.failure->text : ""));
  }
  refused_ = std::move(refused);
  return news;
}

}  // namespace kestrowan::host
