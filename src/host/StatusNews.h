#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "replica/Status.h"

namespace kestrowan::host {

/// Tells what is worth a line in the log when a replica's status is looked at from time to time.
/// Used by one thread.
class StatusNews {
 public:
  /// What is new since the status before, in words: the server going out of reach and coming back,
  /// what holds everything up, conflicts, refused changes.
  std::vector<std::string> of(const replica::Status& status);

 private:
  bool offline_ = false;
  bool silent_ = false;
  std::optional<std::string> held_;
  std::set<std::string> conflicts_;
  std::set<std::string> refused_;  // paths
};

}  // namespace kestrowan::host
