#include "replica/pull/Settler.h"

#include <sys/stat.h>

#include <chrono>
#include <utility>

#include "replica/plan/Following.h"
#include "replica/plan/Plan.h"
#include "replica/plan/Settling.h"

namespace kestrowan::replica::pull {

using model::Attributes;
using model::ConflictNumber;
using model::Content;
using model::Edit;
using model::Here;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Kind;
using model::Place;
using model::There;
using plan::Resolution;
using plan::Settle;

namespace {

/// Of what was set on a file, that which stays when its name shows other bytes.
Attributes lastingAttributes(const Attributes& before) {
  Attributes lasting;
  lasting.mode = before.mode;
  // Others may have written these bytes: they run with the rights of the user that runs them alone.
  if (lasting.mode) *lasting.mode &= static_cast<std::uint16_t>(~(S_ISUID | S_ISGID));
  lasting.pinned = before.pinned;
  lasting.user = before.user;
  lasting.lastUse = before.lastUse;
  return lasting;
}

/// What waits for `before` or was asked for it is now about `now`.
void hand(Edit& edit, ItemNumber before, ItemNumber now) {
  const auto intents = edit->intents().all();
  for (Intent intent : intents) {
    if (intent.item != before) continue;
    intent.item = now;
    edit.change(intent);
  }
  plan::followAlso(edit, before, now);
}

There agreedWith(const Item& item) {
  There agreed = *item.there();
  if (item.agreed()) agreed.place = item.agreed()->place;
  return agreed;
}

}  // namespace

Settler::Settler(const plan::Names& names, const async::Loop& loop, Question isOpen,
                 Question isWritten, Question isAwaited)
    : names_(names),
      loop_(loop),
      isOpen_(std::move(isOpen)),
      isWritten_(std::move(isWritten)),
      isAwaited_(std::move(isAwaited)) {}

void Settler::settleAll(Edit& edit) const {
  const model::Time now(std::chrono::milliseconds(loop_.wallClock()));
  for (bool isChanged = true; isChanged;) {
    isChanged = false;
    const auto unmerged = edit->unmerged();
    for (const ItemNumber number : unmerged) {
      if (!edit->find(number)) continue;
      const plan::Step step = plan::plan(*edit, number, now, names_);
      const auto* settle = std::get_if<Settle>(&step);
      if (settle && this->settle(edit, *settle)) isChanged = true;
    }
  }
}

bool Settler::mustWait(const Edit& edit, const Settle& step) const {
  switch (step.resolution) {
    case Resolution::pull:
    case Resolution::forget:
      return edit->item(step.item).isFile() && isWritten_(step.item);
    case Resolution::aside:
      return edit->item(step.item).there() && isAwaited_(step.item);
    default:
      return false;
  }
}

bool Settler::settle(Edit& edit, const Settle& step) const {
  if (step.resolution == Resolution::end) {
    plan::settle(edit, step);
    return true;
  }
  if (mustWait(edit, step)) return false;
  switch (step.resolution) {
    case Resolution::pull:
      pull(edit, step.item);
      return true;
    case Resolution::beside:
      layBeside(edit, step);
      return true;
    case Resolution::show:
      show(edit, step);
      return true;
    default:
      plan::settle(edit, step);
      return true;
  }
}

void Settler::show(Edit& edit, const Settle& step) {
  plan::settle(edit, step);
  const Item& item = edit->item(step.item);
  Attributes attributes = item.attributes();
  // A file may come back that was written and removed here: its name shows other bytes now.
  if (item.isFile()) attributes = lastingAttributes(attributes);
  const Item& folder = edit->item(item.here()->place.folder);
  if (folder.attributes().pinned) attributes.pinned = true;
  edit.setAttributes(step.item, std::move(attributes));
}

void Settler::pull(Edit& edit, ItemNumber number) const {
  const Item& item = edit->item(number);
  Attributes attributes = lastingAttributes(item.attributes());
  const Here here{item.here()->place, item.there()->content};
  const There there = *item.there();
  const There agreed = agreedWith(item);
  ItemNumber shown = number;
  // What is not here may be on its way to a program that has it open.
  if (item.here()->content != Content::none || (item.isFile() && isOpen_(number))) {
    shown = edit.make(Kind::file);
    hand(edit, number, shown);
    edit.drop(number);
    edit.setThere(shown, there);
  }
  edit.setHere(shown, here);
  edit.setAgreed(shown, agreed);
  edit.setAttributes(shown, std::move(attributes));
}

/// The item keeps its bytes and all that is known of them under another name; theirs is a new item
/// in its place.
void Settler::layBeside(Edit& edit, const Settle& step) {
  const Item& item = edit->item(step.item);
  const ItemNumber theirs = edit.make(Kind::file);
  const ConflictNumber conflict{static_cast<std::uint64_t>(theirs)};
  const Here shown{item.here()->place, item.there()->content};
  const Here kept{step.place, item.here()->content};
  const There there = *item.there();
  const There agreed = agreedWith(item);
  Attributes attributes = lastingAttributes(item.attributes());
  attributes.conflict = conflict;
  Attributes ours = item.attributes();
  ours.conflict = conflict;

  edit.setThere(step.item, std::nullopt);
  edit.setAgreed(step.item, std::nullopt);
  edit.setHere(step.item, kept);
  edit.setAttributes(step.item, std::move(ours));
  edit.setHere(theirs, shown);
  edit.setThere(theirs, there);
  edit.setAgreed(theirs, agreed);
  edit.setAttributes(theirs, std::move(attributes));
}

}  // namespace kestrowan::replica::pull
