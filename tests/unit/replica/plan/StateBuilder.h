#pragma once

#include <string>

#include "replica/model/Edit.h"
#include "replica/plan/Plan.h"
#include "support/MemoryJournal.h"

namespace kestrowan::test {

using namespace replica::model;
using namespace replica::plan;

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
  /// A request without an answer that was looked for.
  IntentNumber sent(Verb verb, ItemNumber item, const std::string& source,
                    const std::string& target, Content content = kNone);
  void change(IntentNumber number, bool looked, bool over);
  void endAll();

  Step plan(ItemNumber item, Time now = {}) const;
  Step forIntents(Time now = {}) const;
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
