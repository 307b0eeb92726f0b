#include "replica/store/AtRest.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "platform/foundation/NSError.h"
#include "replica/Log.h"
#include "replica/model/Seen.h"
#include "replica/store/FormerRecovery.h"
#include "replica/store/StoreFiles.h"
#include "replica/store/TreeLoader.h"
#include "replica/store/TreeSchema.h"

namespace kestrowan::replica {

using model::FailureClass;
using model::Item;
using model::ItemNumber;
using model::State;
using remote::IdentifierForm;

namespace {

constexpr const char* kFileName = "/replica.db";

model::Time now() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

void syncFile(const std::string& path) {
  const auto file = openRegularFile(path, O_RDONLY);
  if (::fsync(file.get()) != 0) throw fileError(errno, path);
}

void count(Unsent& found, const State& state, std::size_t most) {
  state.forEach([&](const Item& item) {
    if (item.here() && item.attributes().localOnly) ++found.localOnly;
  });
  for (const ItemNumber number : state.pending()) {
    const Item& item = state.item(number);
    ++found.changes;
    const auto& failure = item.attributes().failure;
    if (failure && failure->failureClass == FailureClass::refused) ++found.refused;
    if (model::isConflictCopy(item)) ++found.conflicts;
    if (found.paths.size() < most) found.paths.push_back(shownPath(state, item));
  }
}

}  // namespace

Unsent unsentIn(const std::string& directory, std::size_t most) {
  Unsent found;
  const auto form = IdentifierForm::paths();
  if (const auto database = store::readTreeDatabase(directory + kFileName, form, now())) {
    found.inHistory = database->number("SELECT count(*) FROM history") +
                      database->number("SELECT count(*) FROM orphans");
    count(found, store::TreeLoader(*database, form).load(), most);
  }
  found.inHistory += static_cast<std::int64_t>(formerRecovery(directory).size());
  return found;
}

void ageListings(const std::string& directory) {
  const auto form = IdentifierForm::paths();
  if (!store::readTreeDatabase(directory + kFileName, form, now())) return;
  {
    const auto database = store::openTreeDatabase(directory + kFileName, form, now());
    database->execute("UPDATE tree SET listed_at=0 WHERE listed_at IS NOT NULL");
  }
  // Closing has moved the log to the file.
  syncFile(directory + kFileName);
  syncDirectory(directory);
}

}  // namespace kestrowan::replica
