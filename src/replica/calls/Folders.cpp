#include "replica/calls/Folders.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <utility>

#include "platform/foundation/NSString.h"
#include "replica/NameParts.h"
#include "replica/NameRules.h"
#include "replica/calls/Shown.h"
#include "replica/model/View.h"

namespace kestrowan::replica::calls {

using model::Item;
using model::ItemNumber;
using model::View;
using pull::Refresher;

namespace {

/// So many entries of a folder are shown under the lock, which other calls wait for.
constexpr std::size_t kEntriesAtOnce = 1000;

}  // namespace

Task<Attributes> Folders::lookUp(ItemNumber folder, std::string name) {
  if (name.size() > kLongestName) throw posixError(ENAMETOOLONG);
  {
    const View view(rooms_.tree);
    requireFolder(*view, folder);
    // No other client can know of what was made here.
    const Item* item = rooms_.forms.child(*view, folder, name);
    if (item && !item->there()) co_return shown(*view, *item, rooms_.openItems);
  }
  std::optional<NSError> problem = co_await prepared(folder, Refresher::Need::usable);
  std::optional<Attributes> found = known(folder, name);
  if (!found && !problem && mayHaveCome(name)) {
    problem = co_await prepared(folder, Refresher::Need::fresh);
    found = known(folder, name);
  }
  if (!found) throw problem ? *problem : posixError(ENOENT);
  co_return *std::move(found);
}

/// What prevents that the folder is prepared, if anything does.
Task<std::optional<NSError>> Folders::prepared(ItemNumber folder, Refresher::Need need) const {
  if (rooms_.refresher.isPrepared(folder, need)) co_return std::nullopt;
  try {
    co_await rooms_.refresher.prepare(folder, need);
  } catch (const NSError& error) {
    co_return error;
  }
  co_return std::nullopt;
}

std::optional<Attributes> Folders::known(ItemNumber folder, const std::string& name) const {
  const View view(rooms_.tree);
  const Item* item = rooms_.forms.child(*view, folder, name);
  if (!item) return std::nullopt;
  return shown(*view, *item, rooms_.openItems);
}

std::optional<std::vector<FolderStep>> Folders::way(ItemNumber folder) const {
  const View view(rooms_.tree);
  std::vector<FolderStep> steps;
  for (ItemNumber at = folder; at != ItemNumber::root;) {
    const Item* item = view->find(at);
    if (!item || !item->here() || !item->isFolder()) return std::nullopt;
    const auto& place = item->here()->place;
    steps.push_back({static_cast<Rid>(place.folder), place.name, static_cast<Rid>(at)});
    at = place.folder;
  }
  std::reverse(steps.begin(), steps.end());
  return steps;
}

/// Whether it is worth a listing that another client may have made what has this name. For a name
/// that programs look for in each folder it is not.
bool Folders::mayHaveCome(const std::string& name) const {
  const bool staysHere = rooms_.options.localOnlyNames && nameClass(name) != NameClass::ordinary;
  return !staysHere && !isProbed(name);
}

Task<std::shared_ptr<const FolderSnapshot>> Folders::open(ItemNumber folder,
                                                          std::shared_ptr<const Caller> caller) {
  {
    const View view(rooms_.tree);
    requireFolder(*view, folder);
  }
  rooms_.readAhead.noteListed(folder, caller.get());
  if (const auto problem = co_await prepared(folder, Refresher::Need::usable)) throw *problem;
  auto snapshot = std::make_shared<FolderSnapshot>();
  while (addEntries(folder, *snapshot)) continue;
  rooms_.refresher.setOpen(folder, true);
  co_return snapshot;
}

/// Adds the next entries, as many as other calls may wait for. Whether there may be more.
bool Folders::addEntries(ItemNumber folder, FolderSnapshot& snapshot) const {
  const View view(rooms_.tree);
  const Item& item = requireFolder(*view, folder);
  const bool isRoot = folder == ItemNumber::root;
  auto& entries = snapshot.entries;
  if (entries.empty()) {
    snapshot.parent = isRoot ? kRootRid : static_cast<Rid>(item.here()->place.folder);
    entries.reserve(view->countHereIn(folder));
  }
  const model::Bytes behind = entries.empty() ? model::Bytes() : entries.back().name;
  const auto children = view->hereIn(folder, behind, kEntriesAtOnce);
  for (const Item* each : children) {
    entries.push_back({each->here()->place.name, static_cast<Rid>(each->number()),
                       each->isFolder() ? ItemKind::folder : ItemKind::file});
  }
  return children.size() == kEntriesAtOnce;
}

void Folders::close(ItemNumber folder) {
  rooms_.refresher.setOpen(folder, false);
}

Task<ItemNumber> Folders::find(std::string path) {
  ItemNumber at = ItemNumber::root;
  for (std::size_t begin = 0;;) {
    begin = path.find_first_not_of('/', begin);
    if (begin == std::string::npos) co_return at;
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const Attributes found = co_await lookUp(at, path.substr(begin, end - begin));
    at = ItemNumber{found.rid};
    begin = end;
  }
}

}  // namespace kestrowan::replica::calls
