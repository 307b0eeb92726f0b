#include "replica/plan/Settling.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "replica/plan/Following.h"

namespace kestrowan::replica::plan {

using model::Content;
using model::Edit;
using model::Here;
using model::Intent;
using model::IntentNumber;
using model::Item;
using model::ItemNumber;
using model::Kind;
using model::Path;
using model::Place;
using model::There;
using model::Verb;

namespace {

/// In a state of the provider, the folder `from` is now `to`.
std::optional<There> inFolder(std::optional<There> state, ItemNumber from, ItemNumber to) {
  if (state && state->place.folder == from) state->place.folder = to;
  return state;
}

/// `to` becomes what `from` is at the provider, with all that is in it; `from` is no more.
void give(Edit& edit, ItemNumber from, ItemNumber to) {
  const auto there = edit->item(from).there();
  for (const Item* child : edit->thereIn(from)) {
    edit.setThere(child->number(), inFolder(child->there(), from, to));
    edit.setAgreed(child->number(), inFolder(child->agreed(), from, to));
  }
  // What is gone there is in no folder there, but may agree with one.
  const bool isFolder = edit->item(from).isFolder();
  const auto unmerged = isFolder ? edit->unmerged() : std::set<ItemNumber>();
  for (const ItemNumber number : unmerged) {
    edit.setAgreed(number, inFolder(edit->item(number).agreed(), from, to));
  }
  if (isFolder) {
    // What was listed of `to` was another folder.
    auto attributes = edit->item(to).attributes();
    attributes.listedAt = edit->item(from).attributes().listedAt;
    edit.setAttributes(to, std::move(attributes));
  }
  edit.drop(from);
  edit.setThere(to, there);
  edit.setAgreed(to, there);
}

void recognise(Edit& edit, const Item& item, ItemNumber asker) {
  const ItemNumber number = item.number();
  if (item.isFolder()) {
    // A folder has no version that tells: it is explained once.
    const Path path = edit->therePath(item);
    std::vector<IntentNumber> done;
    for (const Intent* intent : edit->intents().atOrAbove(path)) {
      if (intent->verb == Verb::makeFolder && intent->target == path) {
        done.push_back(intent->number);
      }
    }
    for (const IntentNumber intent : done) edit.end(intent);
  }
  const Item* other = edit->find(asker);
  const bool isForOther =
      other && other != &item && !other->there() && other->kind() == item.kind() && !item.agreed();
  if (isForOther) return give(edit, number, asker);
  edit.setAgreed(number, item.there());
  // A second copy is removed while the first one is there, if that is still wanted.
  if (!item.here() && other && other != &item && other->here()) edit.addAfter(number, asker);
}

/// It is no longer to be removed there: it is theirs, as if it were new.
void bringBack(Edit& edit, ItemNumber number) {
  edit.setAgreed(number, std::nullopt);
  edit.clearAfter(number);
}

/// Of what is made anew the provider has nothing, nor of what is in it and gone there too.
void forgetAgreed(Edit& edit, ItemNumber number) {
  edit.setAgreed(number, std::nullopt);
  for (const Item* child : edit->hereIn(number)) {
    if (child->there()) continue;
    if (child->isFile() && child->here()->content == Content::none) {
      edit.drop(child->number());
    } else {
      forgetAgreed(edit, child->number());
    }
  }
}

/// What is shown here is what the provider has now.
void pull(Edit& edit, const Item& item) {
  There agreed = *item.there();
  if (item.agreed()) agreed.place = item.agreed()->place;
  edit.setHere(item.number(), Here{item.here()->place, agreed.content});
  edit.setAgreed(item.number(), std::move(agreed));
}

void layBeside(Edit& edit, const Item& item, const Place& place) {
  const ItemNumber copy = edit.make(Kind::file);
  edit.setHere(copy, Here{place, item.here()->content});
  // What waits for these bytes to arrive waits for the copy now.
  followAlso(edit, item.number(), copy);
  pull(edit, item);
}

/// What the provider has of it becomes another item, which was removed here.
void part(Edit& edit, const Item& item) {
  const ItemNumber number = item.number();
  const auto there = item.there();
  const auto agreed = item.agreed();
  edit.setAgreed(number, std::nullopt);
  if (!there) return;
  const ItemNumber left = edit.make(item.kind());
  for (const Item* child : edit->thereIn(number)) {
    edit.setThere(child->number(), inFolder(child->there(), number, left));
    edit.setAgreed(child->number(), inFolder(child->agreed(), number, left));
  }
  edit.setThere(number, std::nullopt);
  edit.setThere(left, there);
  edit.setAgreed(left, agreed);
}

/// The item becomes the new contents of the other one, whose place it takes. What stood for it
/// elsewhere is to be removed after it has arrived.
void takePlace(Edit& edit, const Item& item, const Item& other) {
  const ItemNumber number = item.number();
  const ItemNumber otherNumber = other.number();
  const auto there = item.there();
  const auto agreed = item.agreed();
  const auto otherThere = other.there();
  edit.setAgreed(number, other.agreed());
  edit.setAgreed(otherNumber, agreed);
  edit.setThere(otherNumber, std::nullopt);
  edit.setThere(number, otherThere);
  edit.setThere(otherNumber, there);
  edit.addAfter(otherNumber, number);
}

/// The provider removed it and nothing of it stays here. What there is of it elsewhere, or lands
/// later, is no longer ours to remove: another client may as well have brought it there.
void forget(Edit& edit, ItemNumber number) {
  const Content content = edit->item(number).here()->content;
  const auto following = edit->following();
  for (const ItemNumber other : following) {
    const Item& copy = edit->item(other);
    const bool waits = std::binary_search(copy.after().begin(), copy.after().end(), number);
    const bool isSame = copy.there() && copy.there()->content == content;
    if (waits && isSame && content != Content::none) bringBack(edit, other);
  }
  std::vector<Intent> own;
  for (const Intent* intent : edit->intents().of(number)) own.push_back(*intent);
  for (Intent& intent : own) {
    intent.item = ItemNumber::none;
    edit.change(intent);
  }
  edit.drop(number);
}

}  // namespace

void settle(Edit& edit, const Settle& step) {
  if (step.resolution == Resolution::end) return edit.end(step.intent);
  const Item& item = edit->item(step.item);
  switch (step.resolution) {
    case Resolution::drop:
      return edit.drop(step.item);
    case Resolution::forget:
      return forget(edit, step.item);
    case Resolution::own:
      return recognise(edit, item, step.other);
    case Resolution::back:
      return bringBack(edit, step.item);
    case Resolution::show:
      edit.setHere(step.item, Here{item.there()->place, item.there()->content});
      return edit.setAgreed(step.item, item.there());
    case Resolution::join:
      return give(edit, step.other, step.item);
    case Resolution::aside:
      return edit.setHere(step.item, Here{step.place, item.here()->content});
    case Resolution::anew:
      return forgetAgreed(edit, step.item);
    case Resolution::agree:
      return edit.setAgreed(step.item, item.there());
    case Resolution::pull:
      return pull(edit, item);
    case Resolution::beside:
      return layBeside(edit, item, step.place);
    case Resolution::part:
      return part(edit, item);
    case Resolution::take:
      return takePlace(edit, item, edit->item(step.other));
    case Resolution::end:
      return;
  }
}

}  // namespace kestrowan::replica::plan
