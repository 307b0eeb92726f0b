#include "replica/push/Push.h"

#include <algorithm>
#include <utility>

#include "async/SleepFor.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/fileprovider/TemplateItem.h"
#include "platform/foundation/CaughtError.h"
#include "replica/Log.h"
#include "replica/model/Seen.h"
#include "replica/model/ShownName.h"
#include "replica/model/View.h"
#include "replica/plan/NameForms.h"
#include "replica/plan/Plan.h"
#include "replica/pull/FolderDate.h"
#include "replica/pull/ProviderItem.h"
#include "replica/pull/Sameness.h"
#include "replica/pull/Space.h"
#include "replica/remote/AnswerTable.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica::push {

using model::Attributes;
using model::Content;
using model::Edit;
using model::Intent;
using model::IntentNumber;
using model::Item;
using model::ItemNumber;
using model::Kind;
using model::Path;
using model::Place;
using model::State;
using model::There;
using model::Time;
using model::Verb;
using model::View;
using plan::Change;
using remote::ErrorClass;
using remote::Provider;
namespace Field = NSFileProviderItemField;

namespace {

/// Before what could not be noted on the disk is tried again.
constexpr std::chrono::milliseconds kNotePause{1000};
/// So often a turn is given back because what is known of the folders grew old meanwhile, or is
/// about to change.
constexpr int kTurns = 3;

NSFileProviderItemPtr templateOf(NSFileProviderItemIdentifier identifier,
                                 NSFileProviderItemIdentifier folder, const std::string& name,
                                 bool isFolder) {
  return std::make_shared<const TemplateItem>(TemplateItem::Values{
      .itemIdentifier = std::move(identifier),
      .parentItemIdentifier = std::move(folder),
      .filename = name,
      .contentType = isFolder ? std::optional(UTType::folder()) : std::nullopt});
}

/// Whether a request that ended with such an error was certainly not done.
bool wasCertainlyNotDone(const NSError& error) {
  switch (remote::errorClass(error)) {
    case ErrorClass::ambiguous:
    case ErrorClass::transient:
    case ErrorClass::down:
    case ErrorClass::held:
    case ErrorClass::listAgain:
    case ErrorClass::quota:
    case ErrorClass::denied:
      return false;
    default:
      return true;
  }
}

void addPaths(std::vector<Path>& paths, const plan::Request& request) {
  if (request.source) paths.push_back(*request.source);
  if (request.target) paths.push_back(*request.target);
}

}  // namespace

Push::Push(model::Tree& tree, async::Loop& loop, remote::Provider& provider, remote::Health& health,
           const Options& options, const pull::Settler& settler, pull::NameForms& forms,
           pull::Refresher& refresher, pull::Touches& touches, pull::Freezer& freezer,
           store::Contents& contents)
    : tree_(tree),
      loop_(loop),
      provider_(provider),
      health_(health),
      options_(options),
      settler_(settler),
      forms_(forms),
      refresher_(refresher),
      touches_(touches),
      freezer_(freezer),
      contents_(contents),
      denials_(tree, refresher, [this](const State& state, const plan::Push& push) {
        return isStillPlanned(state, push);
      }) {}

Time Push::now() const {
  return Time(std::chrono::milliseconds(loop_.wallClock()));
}

/// All that the provider has of it is to be removed there.
bool Push::isToGo(const State& state, const Item& item) {
  if (item.here() || !item.there() || !item.agreed() || !item.isMerged()) return false;
  const bool waits = std::any_of(item.after().begin(), item.after().end(), [&](ItemNumber other) {
    const Item* first = state.find(other);
    return first && !first->isInStep();
  });
  if (waits) return false;
  if (item.isFile()) return true;
  const auto inside = state.thereIn(item.number());
  return item.attributes().listedAt &&
         std::all_of(inside.begin(), inside.end(),
                     [&](const Item* child) { return isToGo(state, *child); });
}

ItemNumber Push::removedWith(const State& state, ItemNumber number) const {
  ItemNumber result = number;
  for (const Item* at = &state.item(number); at->there();) {
    const Item* folder = state.find(at->there()->place.folder);
    if (!folder || folder->number() == ItemNumber::root || folder->here()) break;
    if (isToGo(state, *folder)) result = folder->number();
    at = folder;
  }
  return result;
}

std::vector<ItemNumber> Push::foldersInTree(const State& state, ItemNumber folder) const {
  std::vector<ItemNumber> folders{folder};
  for (std::size_t at = 0; at < folders.size(); ++at) {
    for (const Item* child : state.thereIn(folders[at])) {
      if (child->isFolder()) folders.push_back(child->number());
    }
  }
  return folders;
}

bool Push::isStillPlanned(const State& state, const plan::Push& push) const {
  const Item* item = state.find(push.item);
  if (!item) return false;
  if (push.change == Change::remove && item->isFolder()) return isToGo(state, *item);
  const plan::Step step = plan::plan(state, push.item, now(), settler_.names());
  const auto* same = std::get_if<plan::Push>(&step);
  return same && *same == push;
}

/// A file that is to be moved and has new contents gets both in one request.
bool Push::sendsContents(const State& state, const plan::Push& push) const {
  const Item* item = state.find(push.item);
  if (!item || !item->isFile() || !item->here()) return false;
  if (push.change == Change::create || push.change == Change::contents) return true;
  return push.change == Change::move && push.place == item->here()->place && item->agreed() &&
         item->here()->content != Content::none && item->here()->content != item->agreed()->content;
}

/// The protocol knows no precondition, so what a request could destroy is looked at first.
std::vector<ItemNumber> Push::foldersToList(const plan::Push& push,
                                            std::optional<Time> changedAt) const {
  const View view(tree_);
  const Item* item = view->find(push.item);
  if (!item || push.change == Change::contents || push.change == Change::move) return {};
  if (push.change == Change::remove && item->isFolder()) return foldersInTree(*view, push.item);
  std::vector<ItemNumber> result;
  for (const ItemNumber number : plan::foldersOf(*view, push)) {
    const Item* folder = view->find(number);
    if (!folder || !folder->there()) continue;
    const auto listedAt = folder->attributes().listedAt;
    // A file replaces one of its name silently, so its folder is looked at once more.
    const bool isSilent = push.change == Change::create && item->isFile();
    const bool isOlder = isSilent && (!listedAt || !changedAt || *listedAt <= *changedAt);
    const bool isForgotten = push.change == Change::remove && !changedAt;
    if (!refresher_.isCertain(*folder) || isOlder || isForgotten) result.push_back(number);
  }
  return result;
}

/// The folders in which the request changes something, or removes it; none when it is not to be
/// made any more.
std::vector<ItemNumber> Push::foldersOf(const plan::Push& push) const {
  const View view(tree_);
  if (!isStillPlanned(*view, push)) return {};
  auto result = plan::foldersOf(*view, push);
  if (push.change == Change::remove && view->item(push.item).isFolder()) {
    const auto inside = foldersInTree(*view, push.item);
    result.insert(result.end(), inside.begin(), inside.end());
  }
  return result;
}

/// Waits for the turn to ask for the change. What a look on its way then shows may forbid it, so
/// its end is waited for; and after a long wait the folders are looked at anew.
Task<Provider::Turn> Push::awaitTurn(const plan::Push& push, bool hasContents) {
  for (int turns = 1;; ++turns) {
    const auto asked = loop_.now();
    auto taken = provider_.turn(hasContents);
    auto first = co_await std::move(taken);
    std::optional<Provider::Turn> turn(std::move(first));
    auto folders = foldersOf(push);
    const bool isLong = loop_.now() - asked > options_.freshTime;
    const bool isCertain = !isLong && !refresher_.isLooking(folders);
    if (folders.empty() || isCertain || turns == kTurns) co_return std::move(*turn);
    // The looks may need turns of their own.
    turn.reset();
    co_await refresher_.endOfLooks(std::move(folders));
    folders = foldersToList(push, now());
    if (isLong && !folders.empty()) co_await refresher_.look(std::move(folders));
  }
}

/// Whether it is still to be sent. Throws when what the looks have shown or may lack forbids it.
bool Push::isToBeSent(const plan::Push& push) const {
  if (mayReplaceUnseen(push)) throw NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse);
  const View view(tree_);
  if (!isStillPlanned(*view, push)) {
    // What was seen in it there keeps it.
    const Item* item = view->find(push.item);
    const bool isKept = push.change == Change::remove && item && item->isFolder() &&
                        !item->here() && item->there() && !item->agreed();
    if (isKept) throw NSFileProviderError(NSFileProviderErrorCode::directoryNotEmpty);
    return false;
  }
  if (mayHoldUnseen(*view, push)) {
    throw NSFileProviderError(NSFileProviderErrorCode::directoryNotEmpty);
  }
  return true;
}

Task<void> Push::carryOut(plan::Push push, std::optional<Time> changedAt) {
  auto folders = foldersToList(push, changedAt);
  if (!folders.empty()) co_await refresher_.look(std::move(folders));
  if (!isToBeSent(push)) co_return;
  const bool hasContents = sendsContents(*View(tree_), push);
  auto taken = awaitTurn(push, hasContents);
  auto turn = co_await std::move(taken);
  if (!isToBeSent(push)) co_return;
  if (hasContents && push.change != Change::create) co_await ask(push.item);
  pull::Frozen frozen;
  if (hasContents) frozen = freezer_.freeze(push.item);
  auto sent = prepare(push, std::move(frozen));
  if (sent) co_await send(std::move(turn), std::move(*sent));
}

/// Whether a folder that is to be removed, with all in it, may hold what no listing has shown.
bool Push::mayHoldUnseen(const State& state, const plan::Push& push) const {
  if (push.change != Change::remove || state.item(push.item).isFile()) return false;
  const auto folders = foldersInTree(state, push.item);
  return std::any_of(folders.begin(), folders.end(),
                     [this](ItemNumber folder) { return refresher_.isPartial(folder); });
}

/// Whether a new file may replace something that a listing lacked because it did not come whole.
bool Push::mayReplaceUnseen(const plan::Push& push) const {
  const View view(tree_);
  const Item* item = view->find(push.item);
  return push.change == Change::create && item && item->isFile() &&
         refresher_.mayLackNames(push.place.folder);
}

/// Asks for the item, and writes what the provider has of it now.
Task<void> Push::ask(ItemNumber number) {
  NSFileProviderItemIdentifier identifier;
  ItemNumber folder = ItemNumber::none;
  {
    const View view(tree_);
    const Item* item = view->find(number);
    if (!item || !item->there()) co_return;
    identifier = view->identifier(*item);
    folder = item->there()->place.folder;
  }
  std::optional<NSError> problem;
  NSFileProviderItemPtr seen;
  try {
    seen = co_await provider_.item(identifier);
  } catch (...) {
    problem = caughtError();
  }
  health_.note(problem);
  if (!problem) {
    // Something is there, but not said in a way that could be believed.
    if (seen->itemIdentifier() != identifier) {
      throw NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse);
    }
    writeSeen(number, *seen);
    co_return;
  }
  const ErrorClass kind = remote::errorClass(*problem);
  if (kind != ErrorClass::ambiguous && kind != ErrorClass::gone) throw *problem;
  std::vector<ItemNumber> above{folder};
  co_await refresher_.look(std::move(above));
}

void Push::writeSeen(ItemNumber number, const NSFileProviderItem& seen) {
  Edit edit(tree_);
  const Item* item = edit->find(number);
  if (!item || !item->there()) return;
  const Place place = item->there()->place;
  There now = pull::thereOf(seen, place.folder, edit->identifier(edit->item(place.folder)),
                            options_, pull::Source::look);
  now.place = place;
  now.identifier = item->there()->identifier;
  if (pull::canBeSame(options_, *item->there(), now)) return;
  edit.setThere(number, pull::asOtherState(*item->there(), std::move(now)));
  settler_.settleAll(edit);
  edit.commit();
}

/// Notes what is about to be sent; absent when that is not to be done any more.
std::optional<Push::Sent> Push::prepare(const plan::Push& push, pull::Frozen frozen) {
  Edit edit(tree_);
  if (!isStillPlanned(*edit, push)) return std::nullopt;
  const Item& item = edit->item(push.item);
  Sent sent;
  sent.push = push;
  sent.isFolder = item.isFolder();
  sent.target = push.change == Change::contents ? item.there()->place : push.place;
  if (sendsContents(*edit, push)) {
    if (frozen.number == Content::none || frozen.number != item.here()->content) {
      return std::nullopt;
    }
    sent.frozen = std::move(frozen);
  }
  fillTemplate(*edit, sent);
  plan::Request request = plan::requestOf(*edit, push);
  addPaths(sent.paths, request);
  sent.folders.push_back(sent.target.folder);
  if (item.there()) sent.folders.push_back(item.there()->place.folder);
  doubtDates(edit, sent);
  sent.intents.push_back(plan::noteSent(edit, request, now()));
  if (push.change == Change::move && sent.hasContents()) {
    const plan::Request put{Verb::put, push.item, std::nullopt, request.target, sent.frozen.number};
    sent.intents.push_back(plan::noteSent(edit, put, now()));
  }
  edit.commit();
  return sent;
}

/// Before and after a request: a listing between the two shows the date before or after it.
void Push::doubtDates(Edit& edit, const Sent& sent) {
  for (const ItemNumber folder : sent.folders) pull::doubtFolderDate(edit, folder);
}

void Push::fillTemplate(const State& state, Sent& sent) const {
  const Item& item = state.item(sent.push.item);
  if (item.there()) {
    sent.identifier = state.identifier(item);
    const NSData version(pull::plainVersion(item.there()->version.text));
    sent.version = {version, version};
  } else {
    sent.identifier = "new:" + std::to_string(static_cast<std::uint64_t>(item.number()));
  }
  if (sent.push.change == Change::remove) return;
  sent.wanted = templateOf(sent.identifier, state.identifier(state.item(sent.target.folder)),
                           sent.target.name, sent.isFolder);
  if (sent.hasContents()) sent.fields |= Field::contents;
  if (sent.isCreation() || item.there()->place.name != sent.target.name) {
    sent.fields |= Field::filename;
  }
  if (sent.isCreation() || item.there()->place.folder != sent.target.folder) {
    sent.fields |= Field::parentItemIdentifier;
  }
}

Task<void> Push::send(Provider::Turn turn, Sent sent) {
  std::optional<NSError> problem;
  remote::WrittenItem written;
  try {
    written = co_await request(std::move(turn), sent);
  } catch (...) {
    problem = caughtError();
  }
  health_.note(problem);
  auto noted = note([&] {
    if (problem) {
      writeFailure(sent, *problem);
    } else if (sent.push.change == Change::remove) {
      writeRemoval(sent);
    } else {
      writeAnswer(sent, written);
    }
  });
  co_await std::move(noted);
  guarded("the form of names", [this] { forms_.keep(); });
  if (problem && remote::errorClass(*problem) == ErrorClass::denied) {
    auto confirmed = denials_.confirm(sent.push, sent.intents);
    if (!co_await std::move(confirmed)) problem = remote::AnswerTable::undecided(*problem);
  }
  if (problem) throw *problem;
}

/// What came of a request is noted, however long the disk does not take it.
Task<void> Push::note(std::function<void()> write) {
  for (;;) {
    std::optional<NSError> problem;
    try {
      write();
    } catch (const NSError& error) {
      if (error.domain() != NSPOSIXErrorDomain) throw;
      problem = error;
    }
    if (!problem) co_return;
    auto slept = async::sleepFor(loop_, kNotePause);
    co_await std::move(slept);
  }
}

Task<remote::WrittenItem> Push::request(Provider::Turn turn, const Sent& sent) {
  std::optional<std::string> contents;
  if (sent.hasContents()) contents = contents_.path(sent.frozen.number);
  switch (sent.push.change) {
    case Change::create:
      co_return co_await provider_.create(std::move(turn), sent.wanted, sent.fields, contents, 0);
    case Change::contents:
    case Change::move:
      co_return co_await provider_.modify(std::move(turn), sent.wanted, sent.version, sent.fields,
                                          contents);
    case Change::remove:
      co_await provider_.remove(std::move(turn), sent.identifier, sent.version, sent.isFolder);
      co_return remote::WrittenItem();
  }
  co_return remote::WrittenItem();
}

void Push::writeRemoval(const Sent& sent) {
  Edit edit(tree_);
  touches_.note(sent.paths);
  doubtDates(edit, sent);
  for (const IntentNumber number : sent.intents) plan::noteAnswer(edit, number, {}, now());
  settler_.settleAll(edit);
  edit.commit();
}

/// An answer about another item says nothing of what was sent.
bool Push::isAnswerAbout(const State& state, const Sent& sent,
                         const NSFileProviderItem& answered) const {
  const Item* folder = state.find(sent.target.folder);
  if (!folder || !folder->there()) return false;
  const auto above = state.identifier(*folder);
  return answered.parentItemIdentifier() == above &&
         options_.identifiers.isProper(answered.itemIdentifier(), above, answered.filename());
}

void Push::writeAnswer(const Sent& sent, const remote::WrittenItem& written) {
  bool isUnknown = false;
  bool isOther = false;
  {
    Edit edit(tree_);
    touches_.note(sent.paths);
    doubtDates(edit, sent);
    if (!written.item) {
      writeGone(edit, sent);
    } else if (!isAnswerAbout(*edit, sent, *written.item)) {
      isOther = true;
      for (const IntentNumber number : sent.intents) plan::noteLostAnswer(edit, number, now());
      logItem("the provider answered with another item", *edit, sent.push.item);
    } else {
      writeState(edit, sent, *written.item);
      const Item* item = edit->find(sent.push.item);
      isUnknown = item && item->there() && !item->there()->isVersionKnown;
      const bool isChangedThere = written.fetchAgain && item && item->here() &&
                                  sent.hasContents() && item->isInStep() &&
                                  item->here()->content == sent.frozen.number;
      // The provider made other contents of them.
      if (isChangedThere) pull::Space::evict(edit, sent.push.item);
    }
    settler_.settleAll(edit);
    edit.commit();
  }
  if (isOther) throw NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse);
  // What a listing says soon is of our contents; later it may be of another client's.
  if (isUnknown) refresher_.lookSoon(sent.target.folder);
}

/// The provider says that there is no such item any more.
void Push::writeGone(Edit& edit, const Sent& sent) {
  for (const IntentNumber number : sent.intents) plan::noteRefusal(edit, number);
  if (edit->find(sent.push.item)) edit.setThere(sent.push.item, std::nullopt);
}

void Push::writeState(Edit& edit, const Sent& sent, const NSFileProviderItem& answered) {
  const Item& folder = edit->item(sent.target.folder);
  There now = pull::thereOf(answered, folder.number(), edit->identifier(folder), options_,
                            pull::Source::answer);
  forms_.noteGiven(folder.number(), sent.target.name);
  if (plan::isOtherForm(sent.target.name, now.place.name)) {
    forms_.noteShown(sent.target.name, now.place.name);
    model::giveName(now, sent.target.name);
  }
  bool isOverwritten = sent.hasContents() && now.isVersionKnown && now.size != sent.frozen.size;
  if (sent.hasContents() && !now.isVersionKnown) now.size = sent.frozen.size;
  const Item* before = edit->find(sent.push.item);
  const auto known = before ? before->there() : std::nullopt;
  // What is changed on its way again is not laid beside itself again.
  const bool isChangedAgain = isOverwritten && before && model::isConflictCopy(*before);
  if (isChangedAgain) isOverwritten = false;
  bool isPlaced = true;
  for (const IntentNumber number : sent.intents) {
    const auto& intents = edit->intents().all();
    const auto found = std::find_if(intents.begin(), intents.end(),
                                    [&](const Intent& intent) { return intent.number == number; });
    if (found == intents.end()) continue;
    Intent intent = *found;
    if (now.place.name != sent.target.name) {
      intent.target = intent.target->folder().child(now.place.name);
      edit.change(intent);
    }
    // Another client wrote in between: a look and a comparison tell.
    if (isOverwritten && intent.verb == Verb::put) {
      plan::noteLostAnswer(edit, number, this->now());
    } else {
      isPlaced = plan::noteAnswer(edit, number, now.version, this->now()) && isPlaced;
    }
  }
  const Item* item = edit->find(sent.push.item);
  if (!item || !item->there() || isOverwritten || !isPlaced) return;
  There there = *item->there();
  if (!sent.hasContents() && item->isFile() && known) {
    if (now.isVersionKnown && !pull::canBeSame(options_, *known, now)) {
      // A move changes no contents: another client did, and that is to be merged.
      now.place = there.place;
      edit.setThere(item->number(), pull::asOtherState(*known, std::move(now)));
      return;
    }
    now.version = known->version;
    now.isVersionKnown = known->isVersionKnown;
    now.size = known->size;
    now.date = known->date;
  }
  if (item->isFolder()) {
    now.size = 0;
    now.version = {};
  }
  now.place = there.place;
  now.content = there.content;
  const bool isAgreed = item->agreed() && item->agreed()->version == there.version;
  edit.setThere(item->number(), now);
  if (isAgreed) {
    now.content = item->agreed()->content;
    now.place = item->agreed()->place;
    edit.setAgreed(item->number(), now);
  }
  Attributes attributes = item->attributes();
  attributes.failure.reset();
  // A new folder has nothing in it.
  if (sent.isCreation() && item->isFolder()) attributes.listedAt = this->now();
  edit.setAttributes(item->number(), std::move(attributes));
  if (isChangedAgain && item->here() && item->here()->content == sent.frozen.number) {
    showWhatIsThere(edit, item->number());
  }
}

/// Theirs takes the place of what was sent, which is kept in the history.
void Push::showWhatIsThere(Edit& edit, ItemNumber number) {
  const Item& item = edit->item(number);
  There there = *item.there();
  there.content = Content::none;
  Attributes attributes = item.attributes();
  attributes.size.reset();
  attributes.modified.reset();
  edit.setThere(number, there);
  edit.setAgreed(number, std::move(there));
  edit.setHere(number, model::Here{item.here()->place, Content::none});
  edit.setAttributes(number, std::move(attributes));
}

void Push::writeFailure(const Sent& sent, const NSError& error) {
  Edit edit(tree_);
  touches_.note(sent.paths);
  doubtDates(edit, sent);
  for (const IntentNumber number : sent.intents) {
    if (wasCertainlyNotDone(error)) {
      plan::noteRefusal(edit, number);
    } else {
      plan::noteLostAnswer(edit, number, now());
      // Without a connection nothing of it is on its way, whatever was done before.
      if (remote::errorClass(error) == ErrorClass::down) plan::noteNotOnItsWay(edit, number);
    }
  }
  edit.commit();
}

}  // namespace kestrowan::replica::push
