#include "replica/Life.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/ChangedNames.h"
#include "replica/Log.h"
#include "replica/calls/Shown.h"
#include "replica/model/Edit.h"
#include "replica/model/Seen.h"
#include "replica/model/View.h"
#include "replica/plan/Requests.h"
#include "replica/store/StartRepair.h"

namespace kestrowan::replica {

using model::ConflictNumber;
using model::Content;
using model::Edit;
using model::Item;
using model::ItemChange;
using model::ItemNumber;
using model::Origin;
using model::There;
using model::View;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kLimitsInterval{60000};
constexpr milliseconds kCompactingPause{1};
/// Nothing that is still being fetched stays unchanged for so long.
constexpr std::chrono::seconds kLeftoverAge{3600};

}  // namespace

Life::Life(const std::string& directory, async::Loop& loop, Options usedOptions)
    : options(std::move(usedOptions)),
      scope(loop),
      contentFiles(directory),
      useMark(directory),
      journal(directory, options.identifiers, model::Time(milliseconds(loop.wallClock()))),
      tree(journal, journal.load()),
      contents(contentFiles, lastContent()),
      history(journal, contentFiles, scope),
      provider(scope, {options.metadataCalls, options.downloads, options.uploads},
               options.identifiers, options.watchAnswers),
      health(scope, provider, [this] { goOn(); }),
      openItems(tree, scope, contents, options.openFiles),
      unused(tree, scope, contentFiles, journal, history,
             [this](ContentNumber content) { return openItems.isFrozen(Content{content}); }),
      names(options, scope),
      forms(journal),
      settler(
          names, scope, [this](ItemNumber item) { return openItems.isOpen(item); },
          [this](ItemNumber item) { return openItems.isWritten(item); },
          [this](ItemNumber item) { return verdicts.isAwaited(item); }),
      merge(options, settler),
      space(tree, scope, options, contents, unused, tally,
            [this](ItemNumber item) { return openItems.isOpen(item); }),
      historyLimits(tree, scope, contentFiles, history, unused,
                    {options.historyLimit, options.historyTime, space.freeSpaceFloor()}),
      refresher(tree, scope, provider, health, options, merge, forms, touches),
      downloader(tree, scope, provider, health, options, contents, settler, space, openItems,
                 [this](ItemNumber item) { openItems.handOver(item); }),
      background(scope, options, downloader),
      readAhead(tree, scope, health, downloader, refresher, background),
      verdicts(scope, health),
      refusals(tree, scope, settler, verdicts),
      push(tree, scope, provider, health, options, settler, forms, refresher, touches, openItems,
           contents),
      outbox(tree, scope, health, options, settler, refresher, downloader, push, refusals,
             openItems),
      rooms{tree,      scope, options, contents,  journal,    history,    unused,
            openItems, forms, health,  refresher, downloader, background, readAhead,
            space,     tally, outbox,  refusals,  verdicts},
      files(rooms),
      folders(rooms),
      nameCalls(rooms, files, newWork),
      commands(rooms),
      conflicts(rooms, nameCalls),
      historyCalls(rooms, nameCalls, newWork) {
  begin(directory);
  outbox.restore();
  watchLimits();
}

Life::~Life() {
  scope.close();
  unused.removeNow();
  guarded("the end of a replica", [this] {
    contentFiles.syncAll();
    journal.sync();
    useMark.clear();
  });
}

void Life::begin(const std::string& directory) {
  store::StartRepair(directory, tree, contents, journal, history, scope, useMark.machineStopped())
      .run();
  {
    const View view(tree);
    view->forEach([this](const Item& item) {
      tally.note(item, model::sizeOf(item));
      unused.note({nullptr, &item});
    });
  }
  tree.setClock([this] { return model::FileTime(rooms.now()); });
  tree.watch(*this);
  load();
  // What was found out must not be asked again of a mark that says otherwise.
  if (useMark.machineStopped()) journal.sync();
  guarded("the mark of a replica in use", [this] { useMark.set(); });
}

/// The greatest number that any contents bear.
Content Life::lastContent() {
  auto last = static_cast<std::uint64_t>(journal.firstFreeContent());
  for (const ContentNumber number : contentFiles.numbers()) last = std::max(last, number);
  return Content{last};
}

void Life::load() {
  Edit edit(tree);
  // What was under way when the process ended has no answer any more.
  const auto intents = edit->intents().all();
  for (const auto& intent : intents) {
    if (intent.isUnderWay()) plan::noteLostAnswer(edit, intent.number, rooms.now());
  }
  if (edit->root().attributes().modified) {
    edit.commit();
    return;
  }
  There root;
  root.identifier = std::string(NSFileProviderRootContainerItemIdentifier);
  // Until the provider was asked the root may be read and written.
  root.capabilities =
      NSFileProviderItemCapability::allowsReading | NSFileProviderItemCapability::allowsWriting;
  edit.setThere(ItemNumber::root, root);
  edit.setAgreed(ItemNumber::root, root);
  model::Attributes attributes;
  attributes.modified = model::FileTime(rooms.now());
  edit.setAttributes(ItemNumber::root, std::move(attributes));
  edit.commit();
}

void Life::setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> used) {
  provider.setExtension(std::move(used));
  health.begin();
}

/// The provider can be asked again, or cannot any more.
void Life::goOn() {
  if (health.isUp()) {
    outbox.retryAll();
  } else {
    verdicts.giveUp(health.reason());
  }
}

void Life::stop() {
  health.stop();
  // What ends because of this is no word of the provider's.
  outbox.stop();
  refresher.stop();
  verdicts.giveUp(posixError(ESHUTDOWN));
  provider.stop();
}

void Life::fsyncFolder() {
  // A name is nothing without the contents behind it.
  contentFiles.syncNames();
  journal.sync();
}

void Life::watchLimits() {
  scope.postAfter(kLimitsInterval, [this] {
    guarded("the limits", [this] { scope.postAside([this] { keepLimits(); }); });
    watchLimits();
  });
}

/// Beside the loop.
void Life::keepLimits() {
  guarded("the limits of the disk", [this] { space.keepLimits(); });
  guarded("the limits of the history", [this] { historyLimits.keep(); });
  guarded("the temporary directory", [this] {
    const auto before = std::chrono::floor<std::chrono::seconds>(rooms.now()) - kLeftoverAge;
    contentFiles.sweepTemporary(before.time_since_epoch().count());
  });
  compact();
}

/// A step after another, and edits in between.
void Life::compact() {
  guarded("the database", [this] {
    const bool isIdle = outbox.isIdle() && downloader.inFlight() == 0;
    if (!isIdle || !journal.compact()) return;
    scope.postAfter(kCompactingPause, [this] { scope.postAside([this] { compact(); }); });
  });
}

void Life::changed(const std::vector<ItemChange>& changes, Origin origin) noexcept {
  // Before the calls that the changes are about have their answers.
  if (origin != Origin::program) tellWatchers(changes);
  for (const ItemChange& change : changes) {
    const ItemNumber number = change.any().number();
    unused.note(change);
    if (change.now) {
      tally.note(*change.now, model::sizeOf(*change.now));
    } else {
      tally.noteDropped(number);
      outbox.forget(number);
    }
    keepLeft(change);
    noteConfirmed(change);
    if (origin != Origin::program) refuse(change);
    verdicts.note(number, change.now);
    if (origin != Origin::program) tell(change);
    // A program's call says itself how soon what it changed is to be sent.
    const bool isNoted = origin != Origin::program || !change.now || !change.now->here();
    if (isNoted && change.now && !change.now->isInStep()) outbox.note(number);
    const bool isWanted = change.now && change.now->attributes().pinned && change.now->isFile() &&
                          change.now->there() && change.now->there()->content == Content::none;
    if (origin != Origin::program && isWanted) {
      scope.post([this, number] { downloader.fetchSoon(number); });
    }
  }
}

void Life::tellWatchers(const std::vector<ItemChange>& changes) const noexcept {
  Observer* const told = observer;
  if (!told || !refresher.isAnyWatched()) return;
  guarded("the changes of names", [&] {
    const ChangedNames wanted([this](ItemNumber folder) { return refresher.isWatched(folder); },
                              [this](ItemNumber item) { return verdicts.isAwaited(item); });
    const auto found = wanted.of(changes);
    if (!found.empty()) told->watchedNamesChanged(found);
  });
}

/// A call that waits for the word on a change learns that it did not come about.
void Life::refuse(const ItemChange& change) {
  if (!change.before || !change.now) return;
  const bool isBack = !change.before->here() && change.now->here();
  const bool isConflict = change.before->attributes().conflict == ConflictNumber::none &&
                          change.now->attributes().conflict != ConflictNumber::none;
  if (isBack && change.now->isFolder()) {
    verdicts.refuse(change.now->number(),
                    NSFileProviderError(NSFileProviderErrorCode::directoryNotEmpty));
  } else if (isBack || isConflict) {
    verdicts.refuse(change.now->number(), posixError(EBUSY));
  }
}

/// Contents that were changed while they were sent are in the history, and now they are at the
/// provider too.
void Life::noteConfirmed(const ItemChange& change) {
  if (!change.before || !change.now || !change.now->agreed() || !change.now->here()) return;
  const There& agreed = *change.now->agreed();
  const bool isNew = !change.before->agreed() || change.before->agreed()->content != agreed.content;
  if (!isNew || agreed.content == Content::none || agreed.content == change.now->here()->content) {
    return;
  }
  scope.post([this, content = static_cast<ContentNumber>(agreed.content),
              version = NSData(agreed.version.text)] { history.noteConfirmed(content, version); });
}

/// What programs saw of an item that has no name any more, as long as they may ask for it.
void Life::keepLeft(const ItemChange& change) {
  const bool isLeft =
      change.before && change.before->here() && (!change.now || !change.now->here());
  if (!isLeft) return;
  Attributes seen = calls::shown(*change.before, openItems);
  seen.links = 0;
  const model::FileTime changed{std::chrono::nanoseconds(seen.changed)};
  seen.changed = model::later(changed, model::FileTime(rooms.now())).time_since_epoch().count();
  openItems.keepLeft(change.before->number(), seen, change.before->here()->content);
}

/// What changed without a program's doing.
void Life::tell(const ItemChange& change) const {
  Observer* const told = observer;
  if (!told || !change.before || !change.before->here()) return;
  if (change.isElsewhereHere()) {
    const auto& place = change.before->here()->place;
    told->entryChanged(static_cast<Rid>(place.folder), std::string(place.name));
    if (change.now && change.now->here()) {
      const auto& now = change.now->here()->place;
      told->entryChanged(static_cast<Rid>(now.folder), std::string(now.name));
    }
  }
  const bool isGone = !change.now || !change.now->here();
  if (isGone || change.hasOtherContents() || change.hasOtherAttributes()) {
    told->itemChanged(static_cast<Rid>(change.before->number()),
                      isGone || change.hasOtherContents());
  }
}

}  // namespace kestrowan::replica
