#include "replica/push/Refusals.h"

#include <cerrno>
#include <utility>

#include "replica/Log.h"
#include "replica/model/View.h"
#include "replica/plan/FreePlace.h"
#include "replica/remote/AnswerTable.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica::push {

using model::Attributes;
using model::Content;
using model::Edit;
using model::Failure;
using model::FailureClass;
using model::Here;
using model::Item;
using model::ItemNumber;
using model::Place;
using model::Time;
using model::View;
using plan::Names;
using remote::AnswerTable;
using remote::ErrorClass;
using std::chrono::milliseconds;

namespace {

/// An answer that leaves open what is wrong is taken for a refusal after so many tries.
constexpr std::uint32_t kTriesUntilSlow = 8;
constexpr milliseconds kSlowInterval{15 * 60 * 1000};
/// A server that is not there yet is asked again after this time, without counting.
constexpr milliseconds kDownInterval{1000};

/// The status of a server that has no room.
constexpr std::int64_t kInsufficientStorage = 507;

bool saysFull(const NSError& error) {
  return remote::errorClass(error) == ErrorClass::quota ||
         AnswerTable::httpStatus(error) == kInsufficientStorage;
}

bool isRemoval(const Item& item) {
  return !item.here() && item.there();
}

/// Whether a refusal can undo the change: contents are kept, whatever waits for them.
bool isChangeOfNames(const Item& item) {
  if (!item.here()) return false;
  if (!item.there()) return item.isFolder();
  return item.here()->place != item.there()->place;
}

}  // namespace

Refusals::Refusals(model::Tree& tree, const async::Loop& loop, const pull::Settler& settler,
                   Verdicts& verdicts)
    : tree_(tree),
      loop_(loop),
      settler_(settler),
      verdicts_(verdicts),
      random_(std::random_device()()) {}

Time Refusals::now() const {
  return Time(milliseconds(loop_.wallClock()));
}

Refusals::Delay Refusals::take(ItemNumber item, const NSError& error) {
  if (AnswerTable::httpStatus(error)) {
    const View view(tree_);
    logItem("the server said no", *view, item, error.localizedDescription());
  }
  switch (remote::errorClass(error)) {
    case ErrorClass::ambiguous:
    case ErrorClass::transient:
    case ErrorClass::listAgain:
      return backOff(item, error);
    case ErrorClass::down:
      return kDownInterval;
    case ErrorClass::held:
      return note(item, error, FailureClass::held, kDownInterval);
    case ErrorClass::collision:
      return collide(item, error);
    case ErrorClass::gone:
      return lose(item, error);
    case ErrorClass::deletionRefused:
    case ErrorClass::folderNotEmpty:
      return bringBack(item, error);
    case ErrorClass::quota:
      return wait(item, error);
    case ErrorClass::excluded:
      return keepHere(item);
    case ErrorClass::parked:
    case ErrorClass::refused:
      return refuse(item, error);
    case ErrorClass::denied:
      return AnswerTable::meaning(error.code()).passes ? wait(item, error) : refuse(item, error);
  }
  return backOff(item, error);
}

Refusals::Delay Refusals::backOff(ItemNumber number, const NSError& error) {
  std::uint32_t tries = 1;
  {
    const View view(tree_);
    const Item* item = view->find(number);
    if (item && item->attributes().failure) tries = item->attributes().failure->tries + 1;
  }
  if (tries >= kTriesUntilSlow) return note(number, error, FailureClass::slow, kSlowInterval);
  return note(number, error, FailureClass::transient, remote::backOff(tries, random_()));
}

Refusals::Delay Refusals::note(ItemNumber number, const NSError& error, FailureClass failureClass,
                               Delay delay) {
  Edit edit(tree_);
  const Item* item = edit->find(number);
  if (!item) return delay;
  Attributes attributes = item->attributes();
  Failure failure;
  if (attributes.failure) failure = *attributes.failure;
  if (failure.tries == 0) failure.since = now();
  failure.failureClass = failureClass;
  failure.domain = error.domain();
  failure.code = error.code();
  failure.text = error.localizedDescription();
  ++failure.tries;
  failure.next = now() + delay.value_or(milliseconds(0));
  attributes.failure = failure;
  edit.setAttributes(number, std::move(attributes));
  edit.commit();
  return delay;
}

/// Tells the calls that wait for the word on a change, and undoes a change of names. Whether there
/// was one.
bool Refusals::answer(ItemNumber number, const NSError& error) {
  const bool isAwaited = verdicts_.isAwaited(number);
  verdicts_.refuse(number, error);
  return isAwaited && undo(number);
}

bool Refusals::isToGo(ItemNumber number) const {
  const View view(tree_);
  const Item* item = view->find(number);
  return item && isRemoval(*item);
}

Refusals::Delay Refusals::refuse(ItemNumber number, const NSError& error) {
  if (isToGo(number)) return bringBack(number, error);
  if (answer(number, error)) return milliseconds(0);
  {
    std::lock_guard lock(mutex_);
    unreported_.insert_or_assign(number, error);
  }
  return note(number, error, FailureClass::refused, std::nullopt);
}

/// What is refused now may be taken later: a call that waits for the word does not wait for that.
Refusals::Delay Refusals::wait(ItemNumber number, const NSError& error) {
  const bool isAwaited = verdicts_.isAwaited(number);
  if (isAwaited && isToGo(number)) return bringBack(number, error);
  if (answer(number, error)) return milliseconds(0);
  if (!saysFull(error)) return backOff(number, error);
  if (!isAwaited) {
    std::lock_guard lock(mutex_);
    unreported_.insert_or_assign(number, error);
  }
  return note(number, error, FailureClass::slow, kSlowInterval);
}

/// Undoes a change of names that a program was just told is refused. Whether there was one.
bool Refusals::undo(ItemNumber number) {
  Edit edit(tree_);
  const Item* item = edit->find(number);
  if (!item || !isChangeOfNames(*item)) return false;
  if (!item->there()) {
    if (edit->anyHereIn(number)) return false;
    edit.drop(number);
  } else {
    const Place before = item->there()->place;
    const Item* folder = edit->find(before.folder);
    if (!folder || !folder->here() || edit->hereAt(before)) return false;
    edit.setHere(number, Here{before, item->here()->content});
  }
  edit.commit();
  return true;
}

Refusals::Delay Refusals::collide(ItemNumber number, const NSError& error) {
  const bool isAwaited = verdicts_.isAwaited(number);
  verdicts_.refuse(number, error);
  if (!isAwaited || !undo(number)) bounce(number);
  return milliseconds(0);
}

/// The item's name belongs to another: it gets one of its own.
void Refusals::bounce(ItemNumber number) {
  Edit edit(tree_);
  const Item* item = edit->find(number);
  if (!item || !item->here()) return;
  const Place before = item->here()->place;
  const Place place = plan::freePlace(*edit, before, settler_.names(), &Names::aside);
  edit.setHere(number, Here{place, item->here()->content});
  // What bears the name there must be seen.
  Attributes folder = edit->item(before.folder).attributes();
  if (folder.listedAt) folder.listedAt = Time();
  edit.setAttributes(before.folder, std::move(folder));
  logItem("its name was taken; it was renamed from", *edit, number, before.name);
  edit.commit();
}

/// The provider says that there is no such item.
Refusals::Delay Refusals::lose(ItemNumber number, const NSError& error) {
  {
    Edit edit(tree_);
    const Item* item = edit->find(number);
    if (item && item->there() && (isRemoval(*item) || item->isFile())) {
      edit.setThere(number, std::nullopt);
      settler_.settleAll(edit);
      edit.commit();
      return milliseconds(0);
    }
  }
  return backOff(number, error);
}

/// A call that waits for the word on what is in the item's place is told, too.
void Refusals::makeWay(ItemNumber number, const NSError& error) {
  ItemNumber other = ItemNumber::none;
  {
    const View view(tree_);
    const Item* item = view->find(number);
    if (!item || !isRemoval(*item)) return;
    if (const Item* found = view->hereAt(item->there()->place)) other = found->number();
  }
  if (other == ItemNumber::none || !verdicts_.isAwaited(other)) return;
  verdicts_.refuse(other, error);
  undo(other);
}

/// A removal did not come about: the item is there again.
Refusals::Delay Refusals::bringBack(ItemNumber number, const NSError& error) {
  verdicts_.refuse(number, error);
  makeWay(number, error);
  {
    Edit edit(tree_);
    const Item* item = edit->find(number);
    if (item && isRemoval(*item)) {
      edit.setAgreed(number, std::nullopt);
      edit.clearAfter(number);
      settler_.settleAll(edit);
      edit.commit();
      return milliseconds(0);
    }
  }
  return backOff(number, error);
}

Refusals::Delay Refusals::keepHere(ItemNumber number) {
  Edit edit(tree_);
  if (const Item* item = edit->find(number)) {
    Attributes attributes = item->attributes();
    attributes.localOnly = true;
    attributes.failure.reset();
    edit.setAttributes(number, std::move(attributes));
    edit.commit();
  }
  return milliseconds(0);
}

std::optional<NSError> Refusals::takeUnreported(ItemNumber item) {
  std::lock_guard lock(mutex_);
  const auto found = unreported_.find(item);
  if (found == unreported_.end()) return std::nullopt;
  const NSError error = found->second;
  unreported_.erase(found);
  return error;
}

}  // namespace kestrowan::replica::push
