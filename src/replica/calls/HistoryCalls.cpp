#include "replica/calls/HistoryCalls.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "replica/Log.h"
#include "replica/NameRules.h"
#include "replica/calls/Shown.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"

namespace kestrowan::replica::calls {

using model::Content;
using model::Edit;
using model::FileTime;
using model::Item;
using model::ItemNumber;
using model::Kind;
using model::Place;
using model::View;
using pull::Refresher;

namespace {

/// How many rows are read at once.
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

/// Hands the entries that are meant to `visit`, a few at a time.
void HistoryCalls::visit(const HistoryFilter& filter, const Visit& visit) const {
  for (const Confirmed confirmed : {Confirmed::never, Confirmed::once, Confirmed::notSent}) {
    HistoryTable::Position position;
    for (bool isLast = false; !isLast;) {
      auto page = rooms_.history.page(confirmed, position, kPage);
      isLast = page.size() < kPage;
      if (!page.empty()) position = {page.back().at, page.back().content};
      std::erase_if(page, [&](const HistoryEntry& entry) { return !isMeant(filter, entry); });
      visit(std::move(page));
    }
  }
}

HistoryList HistoryCalls::list(const HistoryFilter& filter, std::size_t most) const {
  HistoryList list;
  visit(filter, [&](std::vector<HistoryEntry> page) {
    for (HistoryEntry& entry : page) {
      ++list.files;
      list.bytes += entry.allocated;
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

HistoryUsage HistoryCalls::clear(const HistoryFilter& filter) {
  HistoryUsage cleared;
  std::vector<ContentNumber> numbers;
  visit(filter, [&](const std::vector<HistoryEntry>& page) {
    for (const HistoryEntry& entry : rooms_.history.remove(page)) {
      ++cleared.files;
      cleared.bytes += entry.allocated;
      numbers.push_back(entry.content);
    }
  });
  rooms_.unused.add(numbers);
  rooms_.unused.removeNow();
  return cleared;
}

Task<std::string> HistoryCalls::restore(ContentNumber number, ItemNumber folder, std::string name,
                                        NameTaken ifTaken) {
  newWork_.require();
  {
    const View view(rooms_.tree);
    names_.checkNewName(*view, requireFolder(*view, folder), name, Kind::file);
  }
  const auto entry = rooms_.history.find(number);
  if (!entry) throw posixError(ENOENT);
  auto copy = rooms_.contents.clone(rooms_.contents.open(Content{number}).get());
  rooms_.contents.setModified(copy.number(), FileTime(std::chrono::nanoseconds(entry->modified)));
  if (!rooms_.refresher.isPrepared(folder, Refresher::Need::fresh)) {
    co_await rooms_.refresher.prepare(folder, Refresher::Need::fresh);
  }
  std::string path;
  ItemNumber item = ItemNumber::none;
  {
    // No program knows of the file yet.
    Edit edit(rooms_.tree);
    const Item* at = edit->find(folder);
    if (!at || !at->here()) throw posixError(ENOENT);
    item = add(edit, {folder, name}, ifTaken, *entry, copy.number());
    edit.commit();
    copy.keep();
    path = shownPath(*edit, edit->item(item));
  }
  rooms_.outbox.noteChange(item, rooms_.options.sendDelay);
  co_return path;
}

ItemNumber HistoryCalls::add(Edit& edit, const Place& wanted, NameTaken ifTaken,
                             const HistoryEntry& entry, Content copy) const {
  Place place = wanted;
  for (unsigned number = 2; rooms_.forms.child(*edit, place.folder, place.name); ++number) {
    if (ifTaken == NameTaken::fails) throw posixError(EEXIST);
    place.name = bouncedName(std::string(wanted.name), number);
  }
  const ItemNumber item = names_.makeItem(edit, place, Kind::file, std::nullopt, copy);
  model::Attributes attributes = edit->item(item).attributes();
  attributes.size = entry.size;
  attributes.modified = FileTime(std::chrono::nanoseconds(entry.modified));
  edit.setAttributes(item, std::move(attributes));
  return item;
}

}  // namespace kestrowan::replica::calls
