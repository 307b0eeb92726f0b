#pragma once

#include <string>

#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "replica/plan/Landing.h"
#include "replica/plan/Observing.h"
#include "replica/plan/Plan.h"
#include "replica/plan/Requests.h"
#include "replica/plan/Settling.h"
#include "support/MemoryJournal.h"

namespace kestrowan::test {

using replica::model::Content;
using replica::model::Edit;
using replica::model::Here;
using replica::model::Intent;
using replica::model::IntentNumber;
using replica::model::Item;
using replica::model::ItemNumber;
using replica::model::Kind;
using replica::model::Path;
using replica::model::Place;
using replica::model::State;
using replica::model::There;
using replica::model::Time;
using replica::model::Tree;
using replica::model::Verb;
using replica::model::Version;
using replica::model::View;
using replica::plan::Change;
using replica::plan::Doubts;
using replica::plan::Fetch;
using replica::plan::foldersOf;
using replica::plan::kLandingTime;
using replica::plan::kSecondLook;
using replica::plan::kSuspicionTime;
using replica::plan::ListedEntry;
using replica::plan::Listing;
using replica::plan::Listings;
using replica::plan::Look;
using replica::plan::Names;
using replica::plan::noteAnswer;
using replica::plan::noteFetched;
using replica::plan::noteLostAnswer;
using replica::plan::noteRefusal;
using replica::plan::noteSent;
using replica::plan::Nothing;
using replica::plan::observe;
using replica::plan::planForIntent;
using replica::plan::Push;
using replica::plan::Request;
using replica::plan::Resolution;
using replica::plan::Settle;
using replica::plan::settle;
using replica::plan::Shown;
using replica::plan::Step;
using replica::plan::WaitFor;
using replica::plan::WaitForAnswer;
using replica::plan::WaitUntil;
using replica::plan::Written;

inline constexpr Content kOld{101};
inline constexpr Content kOurs{102};
inline constexpr Content kTheirs{103};
inline constexpr Content kFromBefore{104};
inline constexpr Content kNone = Content::none;
inline const Version kVersion1{"v1"};
inline const Version kVersion2{"v2"};

/// Names that tell what they are for.
class PlainNames : public Names {
 public:
  /// Those that begin with a dot.
  bool staysHere(std::string_view name) const override { return name.starts_with('.'); }
  std::string conflict(std::string_view name, unsigned number) const override;
  std::string aside(std::string_view name, unsigned number) const override;
  std::string third(std::string_view name, unsigned number) const override;
};

/// Puts items into states one by one, and asks the planner.
class StateBuilder {
 public:
  static Place in(ItemNumber folder, const std::string& name) { return {folder, name}; }
  static Place top(const std::string& name) { return {ItemNumber::root, name}; }

  /// An item in step.
  ItemNumber file(const Place& place, Content content = kOld);
  ItemNumber folder(const Place& place);
  /// One that is only here, or only there.
  ItemNumber fileHere(const Place& place, Content content = kOurs);
  ItemNumber folderHere(const Place& place);
  ItemNumber fileThere(const Place& place, Content content = kNone);
  ItemNumber folderThere(const Place& place);

  void here(ItemNumber item, const Place& place, Content content);
  void move(ItemNumber item, const Place& place);
  void write(ItemNumber item, Content content = kOurs);
  void remove(ItemNumber item);
  /// The provider has other contents; `kNone`: not fetched.
  void changeThere(ItemNumber item, Content content = kNone);
  void removeThere(ItemNumber item);
  void after(ItemNumber item, ItemNumber other);
  void setListed(ItemNumber folder);
  /// A request without an answer that was looked for.
  IntentNumber sent(Verb verb, ItemNumber item, const std::string& source,
                    const std::string& target, Content content = kNone);
  /// One whose answer is still waited for.
  IntentNumber underWay(Verb verb, ItemNumber item, const std::string& source,
                        const std::string& target, Content content = kNone);
  void change(IntentNumber number, bool looked, bool over);
  void endAll();

  Step plan(ItemNumber item, Time now = {}) const;
  Step forIntent(IntentNumber number, Time now = {}) const;
  /// Carries out what is planned, which must be a settling.
  void settlePlanned(ItemNumber item);
  void apply(const Settle& step);

  Item item(ItemNumber number) const;
  bool has(ItemNumber number) const;
  Tree& tree() { return tree_; }
  const MemoryJournal& journal() const { return journal_; }

 private:
  MemoryJournal journal_;
  mutable Tree tree_{journal_};
};

}  // namespace kestrowan::test
