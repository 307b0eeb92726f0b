#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"
#include "replica/FileCalls.h"
#include "replica/calls/Rooms.h"
#include "replica/pull/Refresher.h"

namespace kestrowan::replica::calls {

/// What programs see of folders. The calls are documented in `FileCalls`; those that wait are
/// coroutines, which begin on the caller's thread and continue on the loop. Throws `NSError`.
class Folders {
 public:
  explicit Folders(const Rooms& rooms) : rooms_(rooms) {}

  Task<Attributes> lookUp(model::ItemNumber folder, std::string name);
  Task<std::shared_ptr<const FolderSnapshot>> open(model::ItemNumber folder,
                                                   std::shared_ptr<const Caller> caller);
  void close(model::ItemNumber folder);
  std::optional<Attributes> known(model::ItemNumber folder, const std::string& name) const;
  std::optional<std::vector<FolderStep>> way(model::ItemNumber folder) const;
  /// The item at a path from the root, which begins with "/".
  Task<model::ItemNumber> find(std::string path);

 private:
  Task<std::optional<NSError>> prepared(model::ItemNumber folder, pull::Refresher::Need need) const;
  bool mayHaveCome(const std::string& name) const;
  bool addEntries(model::ItemNumber folder, FolderSnapshot& snapshot) const;

  const Rooms& rooms_;
};

}  // namespace kestrowan::replica::calls
