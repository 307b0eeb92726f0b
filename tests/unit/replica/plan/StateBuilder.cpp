#include "unit/replica/plan/StateBuilder.h"

#include <gtest/gtest.h>

#include "replica/model/View.h"
#include "replica/plan/Absence.h"
#include "replica/plan/Landing.h"
#include "replica/plan/Settling.h"

namespace kestrowan::test {

namespace {

const PlainNames kNames;

Path pathOf(const std::string& text) {
  Path path;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('/', begin), text.size());
    path = path.child(std::string_view(text).substr(begin, end - begin));
    begin = end + 1;
  }
  return path;
}

}  // namespace

std::string PlainNames::conflict(std::string_view name, unsigned number) const {
  return std::string(name) + " (conflict " + std::to_string(number) + ")";
}

std::string PlainNames::aside(std::string_view name, unsigned number) const {
  return std::string(name) + " (" + std::to_string(number + 1) + ")";
}

std::string PlainNames::third(std::string_view name, unsigned number) const {
  return "~" + std::string(name) + std::to_string(number);
}

ItemNumber StateBuilder::file(const Place& place, Content content) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::file);
  edit.setHere(number, Here{place, content});
  edit.setThere(number, There{place, kVersion1, content});
  edit.setAgreed(number, There{place, kVersion1, content});
  edit.commit();
  return number;
}

ItemNumber StateBuilder::folder(const Place& place) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::folder);
  edit.setHere(number, Here{place, kNone});
  edit.setThere(number, There{place, {}, kNone});
  edit.setAgreed(number, There{place, {}, kNone});
  edit.commit();
  return number;
}

ItemNumber StateBuilder::fileHere(const Place& place, Content content) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::file);
  edit.setHere(number, Here{place, content});
  edit.commit();
  return number;
}

ItemNumber StateBuilder::folderHere(const Place& place) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::folder);
  edit.setHere(number, Here{place, kNone});
  edit.commit();
  return number;
}

ItemNumber StateBuilder::fileThere(const Place& place, Content content) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::file);
  edit.setThere(number, There{place, kVersion1, content});
  edit.commit();
  return number;
}

ItemNumber StateBuilder::folderThere(const Place& place) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::folder);
  edit.setThere(number, There{place, {}, kNone});
  edit.commit();
  return number;
}

void StateBuilder::here(ItemNumber item, const Place& place, Content content) {
  Edit edit(tree_);
  edit.setHere(item, Here{place, content});
  edit.commit();
}

void StateBuilder::move(ItemNumber item, const Place& place) {
  here(item, place, this->item(item).here()->content);
}

void StateBuilder::write(ItemNumber item, Content content) {
  here(item, this->item(item).here()->place, content);
}

void StateBuilder::remove(ItemNumber item) {
  Edit edit(tree_);
  edit.setHere(item, std::nullopt);
  edit.commit();
}

void StateBuilder::changeThere(ItemNumber item, Content content) {
  Edit edit(tree_);
  edit.setThere(item, There{edit->item(item).there()->place, kVersion2, content});
  edit.commit();
}

void StateBuilder::removeThere(ItemNumber item) {
  Edit edit(tree_);
  replica::plan::markAbsent(edit, item, false);
  edit.commit();
}

void StateBuilder::setListed(ItemNumber folder) {
  Edit edit(tree_);
  auto attributes = edit->item(folder).attributes();
  attributes.listedAt = Time();
  edit.setAttributes(folder, std::move(attributes));
  edit.commit();
}

void StateBuilder::after(ItemNumber item, ItemNumber other) {
  Edit edit(tree_);
  edit.addAfter(item, other);
  edit.commit();
}

IntentNumber StateBuilder::sent(Verb verb, ItemNumber item, const std::string& source,
                                const std::string& target, Content content) {
  Intent intent;
  intent.verb = verb;
  intent.item = item;
  if (!source.empty()) intent.source = pathOf(source);
  if (!target.empty()) intent.target = pathOf(target);
  intent.content = content;
  intent.ended = Time{};
  intent.until = Time{} + kLandingTime;
  intent.looked = true;
  Edit edit(tree_);
  const IntentNumber number = edit.add(intent);
  edit.commit();
  return number;
}

IntentNumber StateBuilder::underWay(Verb verb, ItemNumber item, const std::string& source,
                                    const std::string& target, Content content) {
  const IntentNumber number = sent(verb, item, source, target, content);
  Edit edit(tree_);
  Intent intent = *edit->intents().find(number);
  intent.ended.reset();
  intent.looked = false;
  edit.change(intent);
  edit.commit();
  return number;
}

void StateBuilder::change(IntentNumber number, bool looked, bool over) {
  Edit edit(tree_);
  for (Intent intent : std::vector<Intent>(edit->intents().all())) {
    if (intent.number != number) continue;
    intent.looked = looked;
    intent.over = over;
    edit.change(intent);
  }
  edit.commit();
}

void StateBuilder::endAll() {
  Edit edit(tree_);
  for (const Intent& intent : std::vector<Intent>(edit->intents().all())) edit.end(intent.number);
  edit.commit();
}

Step StateBuilder::plan(ItemNumber item, Time now) const {
  const View view(tree_);
  return replica::plan::plan(*view, item, now, kNames);
}

Step StateBuilder::forIntent(IntentNumber number, Time now) const {
  const View view(tree_);
  return planForIntent(*view, number, now);
}

void StateBuilder::apply(const Settle& step) {
  Edit edit(tree_);
  settle(edit, step);
  edit.commit();
}

void StateBuilder::settlePlanned(ItemNumber item) {
  const Step step = plan(item);
  ASSERT_TRUE(std::holds_alternative<Settle>(step));
  apply(std::get<Settle>(step));
}

Item StateBuilder::item(ItemNumber number) const {
  const View view(tree_);
  return view->item(number);
}

bool StateBuilder::has(ItemNumber number) const {
  const View view(tree_);
  return view->find(number) != nullptr;
}

}  // namespace kestrowan::test
