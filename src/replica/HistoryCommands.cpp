#include <algorithm>
#include <cerrno>
#include <utility>

#include "replica/Implementation.h"
#include "replica/NameRules.h"

namespace kestrowan::replica {

namespace {

/// How many rows are read before other calls get the lock.
constexpr std::size_t kPage = 256;

bool isMeant(const HistoryFilter& filter, const HistoryEntry& entry) {
  if (entry.at >= filter.before) return false;
  if (filter.path.empty() || filter.path == "/") return true;
  return entry.path == filter.path || entry.path.starts_with(filter.path + "/");
}

bool isLater(const HistoryEntry& a, const HistoryEntry& b) {
  return a.at != b.at ? a.at > b.at : a.content > b.content;
}

}  // namespace

/// Hands the entries that are meant to `visit`, a few at a time and without the lock.
void Replica::Implementation::visitHistory(
    const HistoryFilter& filter, const std::function<void(std::vector<HistoryEntry>)>& visit) {
  for (const Confirmed confirmed : {Confirmed::never, Confirmed::once, Confirmed::notSent}) {
    HistoryTable::Position position;
    for (bool isLast = false; !isLast;) {
      std::vector<HistoryEntry> page;
      {
        std::lock_guard lock(core.mutex);
        page = core.departures.history().page(confirmed, position, kPage);
      }
      isLast = page.size() < kPage;
      if (!page.empty()) position = {page.back().at, page.back().content};
      std::erase_if(page, [&](const HistoryEntry& entry) { return !isMeant(filter, entry); });
      visit(std::move(page));
    }
  }
}

HistoryList Replica::Implementation::history(const HistoryFilter& filter, std::size_t most) {
  HistoryList list;
  visitHistory(filter, [&](std::vector<HistoryEntry> page) {
    for (HistoryEntry& entry : page) {
      ++list.files;
      list.bytes += entry.size;
      list.entries.push_back(std::move(entry));
    }
    if (list.entries.size() <= most + kPage) return;
    std::sort(list.entries.begin(), list.entries.end(), isLater);
    list.entries.resize(most);
  });
  std::sort(list.entries.begin(), list.entries.end(), isLater);
  if (list.entries.size() > most) list.entries.resize(most);
  return list;
}

HistoryUsage Replica::Implementation::clearHistory(const HistoryFilter& filter) {
  HistoryUsage cleared;
  {
    std::lock_guard lock(core.mutex);
    core.rows.requireWritten();
  }
  visitHistory(filter, [&](std::vector<HistoryEntry> page) {
    for (const HistoryEntry& entry : core.departures.remove(std::move(page))) {
      ++cleared.files;
      cleared.bytes += entry.size;
    }
  });
  return cleared;
}

void Replica::Implementation::restore(ContentNumber number, Rid folderRid, std::string name,
                                      NameTaken ifTaken, Completion<std::string> completion) {
  ItemPtr folder;
  HistoryEntry entry;
  ContentNumber copy = 0;
  UniqueFd source;
  {
    std::lock_guard lock(core.mutex);
    core.requireNewWork();
    folder = core.requireFolder(folderRid);
    checkNewName(folder, name, ItemKind::file);
    const auto found = core.departures.history().find(number);
    if (!found) throw posixError(ENOENT);
    entry = *found;
    // From here on the contents stay, whatever becomes of the entry.
    source = core.contents.open(number);
    copy = core.store.nextNumber();
  }
  core.contents.clone(source.get(), copy);
  auto add = [this, folder, name = std::move(name), ifTaken, entry = std::move(entry), copy,
              completion](const Outcome<Done>& prepared) {
    std::string path;
    try {
      if (!prepared.succeeded()) throw prepared.error();
      std::lock_guard lock(core.mutex);
      path = addRestored(folder, name, ifTaken, entry, copy);
    } catch (const NSError& error) {
      core.contents.removeIfPossible(copy);
      completion(error);
      return;
    }
    completion(std::move(path));
  };
  lister.prepare(folder, Lister::Need::fresh, std::move(add));
}

std::string Replica::Implementation::addRestored(const ItemPtr& folder, std::string name,
                                                 NameTaken ifTaken, const HistoryEntry& entry,
                                                 ContentNumber copy) {
  if (folder->gone || folder->removed) throw posixError(ENOENT);
  const std::string wanted = name;
  for (unsigned number = 2; core.table.similarChild(folder->rid, name); ++number) {
    if (ifTaken == NameTaken::fails) throw posixError(EEXIST);
    name = bouncedName(wanted, number);
  }
  const ItemPtr item = core.makeItem(folder->rid, name, ItemKind::file);
  item->localOnly = staysHere(name, ItemKind::file);
  item->pinned = folder->pinned;
  item->content = copy;
  item->contentsChanged = true;
  item->size = entry.size;
  setModified(item, entry.modified);
  core.table.add(item);
  core.save(item);
  requireWritten([&] {
    item->content = 0;
    core.dropItem(item, HistoryReason::removed);
  });
  core.noteFolderChange(folder->rid);
  core.entryChanged(folder->rid, name);
  sender.changed(item, core.options.sendDelay);
  return core.table.path(*item);
}

}  // namespace kestrowan::replica
