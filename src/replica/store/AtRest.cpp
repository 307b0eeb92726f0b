#include "replica/store/AtRest.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include "platform/foundation/NSError.h"
#include "replica/Item.h"
#include "replica/NameRules.h"
#include "replica/store/FormerRecovery.h"
#include "replica/store/ItemRow.h"
#include "replica/store/Schema.h"
#include "replica/store/Statement.h"
#include "replica/store/StoreFiles.h"

namespace kestrowan::replica {

namespace {

constexpr const char* kFileName = "/replica.db";

/// Folders above folders; damaged rows may form a ring.
constexpr std::size_t kDeepest = 4096;

void syncFile(const std::string& path) {
  const auto file = openRegularFile(path, O_RDONLY);
  if (::fsync(file.get()) != 0) throw fileError(errno, path);
}

std::string pathOf(Statement& above, const ItemRecord& record) {
  std::string path = "/" + record.name;
  Rid at = record.parent;
  for (std::size_t depth = 0; at != kRootRid && depth < kDeepest; ++depth) {
    above.reset();
    above.bind(1, static_cast<std::int64_t>(at));
    if (!above.step()) break;
    path.insert(0, "/" + std::string(above.bytes(1).value_or("")));
    at = static_cast<Rid>(above.number(0).value_or(0));
  }
  return path;
}

void count(Unsent& found, const Item& item) {
  if (item.localOnly && !item.removed) ++found.localOnly;
  if (!item.isPending()) return;
  ++found.changes;
  if (item.failure && item.failure->failureClass == FailureClass::refused) ++found.refused;
  if (isConflictName(item.name)) ++found.conflicts;
}

void lookInto(Database& database, Unsent& found, std::size_t most) {
  Statement rows(database, kLoadItems);
  found.inHistory = database.number("SELECT count(*) FROM history");
  Statement above(database, "SELECT parent,name FROM items WHERE rid=?1");
  while (rows.step()) {
    auto record = itemFromRow(rows);
    if (!record) continue;
    Item item;
    static_cast<ItemRecord&>(item) = *std::move(record);
    count(found, item);
    if (item.isPending() && found.paths.size() < most) found.paths.push_back(pathOf(above, item));
  }
}

}  // namespace

Unsent unsentIn(const std::string& directory, std::size_t most) {
  Unsent found;
  if (const auto database = readReplicaDatabase(directory + kFileName)) {
    lookInto(*database, found, most);
  }
  found.inHistory += static_cast<std::int64_t>(formerRecovery(directory).size());
  return found;
}

void ageListings(const std::string& directory) {
  if (!readReplicaDatabase(directory + kFileName)) return;
  {
    const auto database = openReplicaDatabase(directory + kFileName);
    database->execute("UPDATE items SET listed_at=1 WHERE listed_at>1");
  }
  // Closing has moved the log to the file.
  syncFile(directory + kFileName);
  syncDirectory(directory);
}

}  // namespace kestrowan::replica
