#pragma once

#include "async/Scope.h"
#include "replica/Options.h"
#include "replica/calls/OpenItems.h"
#include "replica/model/Tree.h"
#include "replica/pull/BackgroundFetches.h"
#include "replica/pull/Downloader.h"
#include "replica/pull/NameForms.h"
#include "replica/pull/ReadAhead.h"
#include "replica/pull/Refresher.h"
#include "replica/pull/Space.h"
#include "replica/pull/Tally.h"
#include "replica/push/Outbox.h"
#include "replica/push/Refusals.h"
#include "replica/push/Verdicts.h"
#include "replica/remote/Health.h"
#include "replica/store/Contents.h"
#include "replica/store/Durability.h"
#include "replica/store/History.h"
#include "replica/store/UnusedContents.h"

namespace kestrowan::replica::calls {

/// The parts of a replica that calls are made of. All outlive the calls.
struct Rooms {
  model::Tree& tree;
  async::Scope& scope;
  const Options& options;
  store::Contents& contents;
  store::Durability& durability;
  store::History& history;
  store::UnusedContents& unused;
  OpenItems& openItems;
  const pull::NameForms& forms;
  remote::Health& health;
  pull::Refresher& refresher;
  pull::Downloader& downloader;
  pull::BackgroundFetches& background;
  pull::ReadAhead& readAhead;
  pull::Space& space;
  const pull::Tally& tally;
  push::Outbox& outbox;
  push::Refusals& refusals;
  push::Verdicts& verdicts;

  model::Time now() const { return model::Time(std::chrono::milliseconds(scope.wallClock())); }
};

}  // namespace kestrowan::replica::calls
