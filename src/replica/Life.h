#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "async/Scope.h"
#include "replica/Observer.h"
#include "replica/calls/Commands.h"
#include "replica/calls/Conflicts.h"
#include "replica/calls/Files.h"
#include "replica/calls/Folders.h"
#include "replica/calls/HistoryCalls.h"
#include "replica/calls/Names.h"
#include "replica/calls/NewWork.h"
#include "replica/calls/OpenItems.h"
#include "replica/calls/Rooms.h"
#include "replica/model/Tree.h"
#include "replica/pull/GivenNames.h"
#include "replica/pull/ListingMerge.h"
#include "replica/pull/NameForms.h"
#include "replica/store/ContentFiles.h"
#include "replica/store/History.h"
#include "replica/store/HistoryLimits.h"
#include "replica/store/TreeJournal.h"
#include "replica/store/UnusedContents.h"
#include "replica/store/UseMark.h"

namespace kestrowan::replica {

/// The parts of a replica from its beginning to its end, in the order in which they are made.
class Life : public model::Watcher {
 public:
  Life(const std::string& directory, async::Loop& loop, Options options);
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;
  ~Life() override;

  void setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider);
  void stop();
  void fsyncFolder();
  void changed(const std::vector<model::ItemChange>& changes,
               model::Origin origin) noexcept override;
  void released() noexcept override {}

 private:
  model::Content lastContent();
  void begin(const std::string& directory);
  void load();
  void goOn();
  void watchLimits();
  void keepLimits();
  void compact();
  void refuse(const model::ItemChange& change);
  void tell(const model::ItemChange& change) const;
  void tellWatchers(const std::vector<model::ItemChange>& changes) const noexcept;
  void noteConfirmed(const model::ItemChange& change);
  void keepLeft(const model::ItemChange& change);

 public:
  const Options options;
  async::Scope scope;
  ContentFiles contentFiles;
  UseMark useMark;
  store::TreeJournal journal;
  model::Tree tree;
  store::Contents contents;
  store::History history;
  remote::Provider provider;
  remote::Health health;
  calls::OpenItems openItems;
  store::UnusedContents unused;
  pull::GivenNames names;
  pull::NameForms forms;
  pull::Settler settler;
  pull::ListingMerge merge;
  pull::Touches touches;
  pull::Tally tally{contentFiles};
  pull::Space space;
  store::HistoryLimits historyLimits;
  pull::Refresher refresher;
  pull::Downloader downloader;
  pull::BackgroundFetches background;
  pull::ReadAhead readAhead;
  push::Verdicts verdicts;
  push::Refusals refusals;
  push::Push push;
  push::Outbox outbox;
  const calls::Rooms rooms;
  calls::NewWork newWork;
  calls::Files files;
  calls::Folders folders;
  calls::Names nameCalls;
  calls::Commands commands;
  calls::Conflicts conflicts;
  calls::HistoryCalls historyCalls;
  std::atomic<Observer*> observer = nullptr;
};

}  // namespace kestrowan::replica
