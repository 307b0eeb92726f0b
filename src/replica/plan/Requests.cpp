#include "replica/plan/Requests.h"

#include <algorithm>

#include "platform/base/Fatal.h"
#include "replica/model/ShownName.h"
#include "replica/plan/Absence.h"
#include "replica/plan/Landing.h"
#include "replica/plan/MovedIntents.h"

namespace kestrowan::replica::plan {

using model::Content;
using model::Edit;
using model::Here;
using model::Intent;
using model::IntentNumber;
using model::Item;
using model::ItemNumber;
using model::Kind;
using model::Place;
using model::State;
using model::There;
using model::Time;
using model::Verb;
using model::Version;

namespace {

Intent intentOf(const State& state, IntentNumber number) {
  const Intent* found = state.intents().find(number);
  if (!found) fatalError("an answer came for a request that was not noted");
  return *found;
}

/// What the answer is about may be elsewhere: an earlier move without an answer may have landed
/// before the request.
bool mayHaveMoved(const State& state, const Intent& intent) {
  const auto paths = intent.paths();
  return std::any_of(paths.begin(), paths.end(), [&](const model::Path& path) {
    const auto above = state.intents().atOrAbove(path);
    return std::any_of(above.begin(), above.end(), [&](const Intent* other) {
      return other->verb == Verb::move && !other->isUnderWay() && path.isAtOrBelow(*other->source);
    });
  });
}

/// Where what was asked for is now, when nothing else is known to be there.
std::optional<Place> placeOfTarget(const State& state, const Intent& intent) {
  const Item* folder = state.folderOf(*intent.target);
  if (!folder) return std::nullopt;
  Place place{folder->number(), std::string(intent.target->name())};
  const Item* other = state.thereAt(place);
  if (other && other->number() != intent.item) return std::nullopt;
  return place;
}

/// False when it cannot be placed.
bool placePut(Edit& edit, const Intent& intent, const Version& version) {
  const auto place = placeOfTarget(*edit, intent);
  if (!place) return false;
  const Kind kind = intent.verb == Verb::put ? Kind::file : Kind::folder;
  // What was removed here meanwhile is to be removed there.
  const ItemNumber number = edit->find(intent.item) ? intent.item : edit.make(kind);
  const There there{*place, version, intent.content};
  edit.setThere(number, there);
  edit.setAgreed(number, there);
  return true;
}

bool placeMove(Edit& edit, const Intent& intent, Time now) {
  const auto place = placeOfTarget(*edit, intent);
  const Item* item = edit->find(intent.item);
  if (!place || !item || !item->there()) return false;
  There there = *item->there();
  model::putAt(there, *place);
  auto agreed = item->agreed();
  if (agreed) model::putAt(*agreed, *place);
  edit.setThere(intent.item, there);
  edit.setAgreed(intent.item, agreed);
  moveIntents(edit, *intent.source, *intent.target, now);
  return true;
}

bool placeRemoval(Edit& edit, const Intent& intent) {
  if (edit->find(intent.item)) markAbsent(edit, intent.item, true);
  return true;
}

bool placeAnswer(Edit& edit, const Intent& intent, const Version& version, Time now) {
  switch (intent.verb) {
    case Verb::put:
    case Verb::makeFolder:
      return placePut(edit, intent, version);
    case Verb::move:
      return placeMove(edit, intent, now);
    case Verb::remove:
      return placeRemoval(edit, intent);
  }
  return false;
}

}  // namespace

Request requestOf(const State& state, const Push& push) {
  const Item& item = state.item(push.item);
  Request request{Verb::put, push.item, std::nullopt, std::nullopt, push.content};
  if (push.change == Change::create && item.isFolder()) request.verb = Verb::makeFolder;
  if (push.change == Change::move) request.verb = Verb::move;
  if (push.change == Change::remove) request.verb = Verb::remove;
  const bool hasSource = push.change == Change::move || push.change == Change::remove;
  if (hasSource) request.source = state.therePath(item);
  if (push.change != Change::remove) request.target = *state.pathOf(push.place);
  return request;
}

std::vector<ItemNumber> foldersOf(const State& state, const Push& push) {
  const Item& item = state.item(push.item);
  std::vector<ItemNumber> folders{push.place.folder};
  if (push.change == Change::move) folders.push_back(item.there()->place.folder);
  if (push.change != Change::remove) return folders;
  if (item.isFolder()) folders.push_back(push.item);
  for (const ItemNumber number : item.after()) {
    // What it is removed after is to be there still.
    const Item* other = state.find(number);
    if (other && other->there()) folders.push_back(other->there()->place.folder);
  }
  return folders;
}

IntentNumber noteSent(Edit& edit, const Request& request, Time now) {
  Intent intent;
  intent.verb = request.verb;
  intent.item = request.item;
  intent.source = request.source;
  intent.target = request.target;
  intent.content = request.content;
  intent.until = now + kLandingTime;
  return edit.add(std::move(intent));
}

bool noteAnswer(Edit& edit, IntentNumber number, const Version& version, Time now) {
  const Intent intent = intentOf(*edit, number);
  if (mayHaveMoved(*edit, intent) || !placeAnswer(edit, intent, version, now)) {
    noteLostAnswer(edit, number, now);
    return false;
  }
  edit.end(number);
  return true;
}

void noteLostAnswer(Edit& edit, IntentNumber number, Time now) {
  Intent intent = intentOf(*edit, number);
  intent.ended = now;
  intent.until = now + kLandingTime;
  edit.change(intent);
}

void noteNotOnItsWay(Edit& edit, IntentNumber number) {
  Intent intent = intentOf(*edit, number);
  intent.until = intent.ended.value_or(intent.until);
  edit.change(intent);
}

void noteRefusal(Edit& edit, IntentNumber number) {
  edit.end(number);
}

void noteFetched(Edit& edit, ItemNumber number, const Version& version, Content content) {
  const Item* item = edit->find(number);
  if (!item || !item->there() || item->there()->version != version) return;
  There there = *item->there();
  there.content = content;
  const bool isAgreed = item->agreed() && item->agreed()->version == version;
  if (isAgreed && item->agreed()->content == Content::none) {
    There agreed = *item->agreed();
    agreed.content = content;
    if (item->here() && item->here()->content == Content::none) {
      edit.setHere(number, Here{item->here()->place, content});
    }
    edit.setAgreed(number, agreed);
  }
  edit.setThere(number, std::move(there));
}

}  // namespace kestrowan::replica::plan
