#include "replica/store/TakeoverRun.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "replica/store/IntentRow.h"
#include "replica/store/ItemRow.h"
#include "replica/store/TreeRow.h"

namespace kestrowan::replica::store {

using model::Intent;
using model::IntentNumber;
using model::Path;

namespace {

/// More folders in one another than any path has; a way that is longer leads round.
constexpr unsigned kDeepest = 4096;

}  // namespace

void TakeoverRun::run() {
  readFolders();
  save();
}

void TakeoverRun::readFolders() {
  Statement rows(database_, kLoadItems);
  while (rows.step()) {
    const auto record = itemFromRow(rows);
    if (!record || record->kind != ItemKind::folder || !record->base) continue;
    folders_[record->rid] = {record->base->parent, record->base->name, record->base->identifier};
  }
}

void TakeoverRun::save() {
  Statement rows(database_, kLoadItems);
  Statement saveItem(database_, kSaveTreeItem);
  Statement saveIntent(database_, kSaveIntent);
  Statement saveOrphan(database_, "INSERT OR REPLACE INTO orphans VALUES(?1,?2)");
  std::vector<Intent> intents;
  TreeRowBytes bytes;
  while (rows.step()) {
    const auto record = itemFromRow(rows);
    if (!record) ++leftOut_;
    if (!record) continue;
    TakenOver taken = takenOver(*record, surroundingsOf(*record));
    if (taken.orphan != model::Content::none) {
      saveOrphan.bind(1, static_cast<std::int64_t>(taken.orphan));
      saveOrphan.bind(2, std::string_view(record->name));
      saveOrphan.run();
    }
    if (!isAnywhere(*record)) continue;
    bindTreeItem(saveItem, taken.item, bytes);
    saveItem.run();
    intents.insert(intents.end(), taken.intents.begin(), taken.intents.end());
  }
  std::uint64_t number = 0;
  for (Intent& intent : intents) {
    intent.number = IntentNumber{++number};
    bindIntent(saveIntent, intent);
    saveIntent.run();
  }
}

std::optional<Path> TakeoverRun::pathOf(Rid folder, const std::string& name) const {
  std::vector<const std::string*> names{&name};
  while (folder != kRootRid) {
    const auto found = folders_.find(folder);
    if (found == folders_.end() || names.size() > kDeepest) return std::nullopt;
    names.push_back(&found->second.name);
    folder = found->second.parent;
  }
  Path path;
  for (auto next = names.rbegin(); next != names.rend(); ++next) path = path.child(**next);
  return path;
}

bool TakeoverRun::isDerived(const Base& base) const {
  if (!form_.arePaths()) return false;
  if (base.parent == kRootRid) return base.identifier == "/" + base.name;
  const auto folder = folders_.find(base.parent);
  return folder != folders_.end() && base.identifier == folder->second.identifier + "/" + base.name;
}

Surroundings TakeoverRun::surroundingsOf(const ItemRecord& record) const {
  Surroundings surroundings;
  surroundings.now = now_;
  if (record.base) {
    surroundings.base = pathOf(record.base->parent, record.base->name);
    surroundings.isIdentifierDerived = isDerived(*record.base);
  }
  if (record.sent) surroundings.sent = pathOf(record.sent->parent, record.sent->name);
  return surroundings;
}

}  // namespace kestrowan::replica::store
