#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>

#include "replica/Implementation.h"
#include "replica/NameRules.h"

namespace kestrowan::replica {

namespace {

constexpr std::size_t kLongestName = 255;

}  // namespace

void Replica::Implementation::lookUp(Rid folderRid, std::string_view name,
                                     Completion<Attributes> completion) {
  if (name.size() > kLongestName) throw posixError(ENAMETOOLONG);
  ItemPtr folder;
  {
    std::lock_guard lock(core.mutex);
    folder = core.requireFolder(folderRid);
    // Nobody else can know of what was made here.
    if (const ItemPtr here = core.table.child(folderRid, name); here && !here->base) {
      const Attributes attributes = core.attributes(*here);
      core.answer<Attributes>(std::move(completion), attributes);
      return;
    }
  }
  lister.prepare(folder, Lister::Need::usable,
                 [this, folder, name = std::string(name),
                  completion = std::move(completion)](const Outcome<Done>& prepared) {
                   std::optional<Attributes> found;
                   {
                     std::lock_guard lock(core.mutex);
                     if (const ItemPtr item = core.table.similarChild(folder->rid, name)) {
                       found = core.attributes(*item);
                     }
                   }
                   if (found) {
                     completion(*found);
                   } else if (prepared.succeeded()) {
                     completion(posixError(ENOENT));
                   } else {
                     completion(prepared.error());
                   }
                 });
}

void Replica::Implementation::askForRoot(Completion<Done> completion) {
  ItemPtr root;
  {
    std::lock_guard lock(core.mutex);
    root = core.requireFolder(kRootRid);
  }
  lister.prepare(root, Lister::Need::forced, std::move(completion));
}

void Replica::Implementation::openFolder(
    Rid folderRid, Completion<std::shared_ptr<const FolderSnapshot>> completion) {
  ItemPtr folder;
  {
    std::lock_guard lock(core.mutex);
    folder = core.requireFolder(folderRid);
  }
  lister.prepare(folder, Lister::Need::usable,
                 [this, folder, completion = std::move(completion)](const Outcome<Done>& prepared) {
                   if (!prepared.succeeded()) {
                     completion(prepared.error());
                     return;
                   }
                   auto snapshot = std::make_shared<FolderSnapshot>();
                   {
                     std::lock_guard lock(core.mutex);
                     lister.setOpen(folder, true);
                     snapshot->parent = folder->rid == kRootRid ? kRootRid : folder->parent;
                     auto children = core.table.children(folder->rid);
                     // Programs go through a folder in this order, and so does what is done ahead.
                     std::sort(children.begin(), children.end(),
                               [](const ItemPtr& left, const ItemPtr& right) {
                                 return left->name < right->name;
                               });
                     snapshot->entries.reserve(children.size());
                     for (const ItemPtr& child : children) {
                       snapshot->entries.push_back({child->name, core.attributes(*child)});
                     }
                   }
                   completion(std::shared_ptr<const FolderSnapshot>(std::move(snapshot)));
                 });
}

struct Replica::Implementation::FetchWaiter {
  ItemPtr item;
  Completion<Done> completion;
  std::atomic<bool> answered = false;

  void answer(const Outcome<Done>& outcome) {
    if (!answered.exchange(true)) completion(outcome);
  }
};

void Replica::Implementation::fetchWhileAnswered(const ItemPtr& item, Completion<Done> completion) {
  auto waiter = std::make_shared<FetchWaiter>();
  waiter->item = item;
  waiter->completion = std::move(completion);
  watchFetch(waiter);
  fetcher.fetch(item, [waiter](const Outcome<Done>& outcome) { waiter->answer(outcome); });
}

void Replica::Implementation::watchFetch(const std::shared_ptr<FetchWaiter>& waiter) {
  auto goOn = [this, waiter](const Outcome<Done>&) {
    bool slow = false;
    {
      std::lock_guard lock(core.mutex);
      slow = health.isSlow();
    }
    if (slow) {
      waiter->answer(posixError(ETIMEDOUT));
    } else {
      watchFetch(waiter);
    }
  };
  core.loop.postAfter(core.options.listingWait, [this, waiter, goOn = std::move(goOn)] {
    if (waiter->answered) return;
    ItemPtr folder;
    {
      std::lock_guard lock(core.mutex);
      folder = core.table.find(waiter->item->parent);
    }
    // A download says nothing before its end: a listing tells whether anybody answers.
    if (folder) {
      lister.prepare(folder, Lister::Need::fresh, goOn);
    } else {
      goOn(Done{});
    }
  });
}

/// What a listing changed has to be sent, or fetched.
void Replica::Implementation::itemChangedByListing(const ItemPtr& item) {
  if (item->isPending()) {
    sender.changed(item, std::chrono::milliseconds(0));
  } else if (item->pinned) {
    fetcher.fetchLater(item);
  }
}

std::vector<ItemPtr> Replica::Implementation::subtree(const ItemPtr& item) const {
  std::vector<ItemPtr> all{item};
  for (std::size_t at = 0; at < all.size(); ++at) {
    if (!all[at]->isFolder()) continue;
    const auto below = core.table.children(all[at]->rid);
    all.insert(all.end(), below.begin(), below.end());
  }
  return all;
}

}  // namespace kestrowan::replica
