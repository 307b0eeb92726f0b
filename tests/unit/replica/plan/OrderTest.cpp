#include "replica/plan/Plan.h"

#include <gtest/gtest.h>

#include "replica/model/View.h"
#include "replica/plan/Following.h"
#include "replica/plan/Requests.h"
#include "unit/replica/plan/StateBuilder.h"

namespace kestrowan::test {
namespace {

constexpr Time kStart{};

class OrderTest : public testing::Test {
 protected:
  static Place top(const std::string& name) { return StateBuilder::top(name); }

  /// Rename over: the other one goes after this one has arrived.
  void replace(ItemNumber item, ItemNumber other) {
    const Place place = state_.item(other).here()->place;
    Edit edit(state_.tree());
    replica::plan::followReplacement(edit, other, item);
    edit.setHere(other, std::nullopt);
    edit.setHere(item, Here{place, edit->item(item).here()->content});
    edit.commit();
  }

  StateBuilder state_;
};

TEST_F(OrderTest, MakesAFolderBeforeWhatGoesIntoIt) {
  const ItemNumber d = state_.folderHere(top("d"));
  const ItemNumber f = state_.fileHere({d, "f"});
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, {d, "a"});
  EXPECT_EQ(state_.plan(f), Step(WaitFor{d}));
  EXPECT_EQ(state_.plan(a), Step(WaitFor{d}));
}

TEST_F(OrderTest, LeavesAPlaceBeforeItIsTaken) {
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top("b"));
  const ItemNumber next = state_.fileHere(top("a"));
  EXPECT_EQ(state_.plan(next), Step(WaitFor{a}));
}

TEST_F(OrderTest, PutsAFileOverOneThatIsToGo) {
  const ItemNumber old = state_.file(top("a"));
  state_.remove(old);
  const ItemNumber next = state_.fileHere(top("a"));
  EXPECT_EQ(state_.plan(next), Step(Settle{Resolution::take, next, old, {}}));
  state_.settlePlanned(next);
  EXPECT_EQ(state_.plan(old), Step(Settle{Resolution::drop, old, {}, {}}));
  state_.settlePlanned(old);
  EXPECT_EQ(state_.plan(next), Step(Push{Change::contents, next, top("a"), kOurs}));
}

TEST_F(OrderTest, RemovesTheOldPlaceOfAFileAfterItsContentsHaveArrivedInTheNewOne) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  const ItemNumber b = state_.file(top("b"));
  replace(a, b);
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top("b"), kOurs}));
  EXPECT_EQ(state_.plan(b), Step(WaitFor{a})) << "it stands for the old place now";
  EXPECT_EQ(state_.item(b).there()->place, top("a"));
}

TEST_F(OrderTest, RemovesTheOldPlaceLastAlsoWhenTheOtherFileWasRemovedBefore) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  const ItemNumber b = state_.file(top("b"));
  state_.remove(b);
  state_.move(a, top("b"));
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(b), Step(WaitFor{a}));
}

TEST_F(OrderTest, FetchesAFileThatTakesAPlaceAndIsNotHere) {
  const ItemNumber a = state_.file(top("a"), kNone);
  const ItemNumber b = state_.file(top("b"));
  replace(a, b);
  EXPECT_EQ(state_.plan(a), Step(Fetch{a}));
}

TEST_F(OrderTest, TakesNoPlaceOfAFileThatWaitsForAnotherOne) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  const ItemNumber b = state_.file(top("b"), kOld);
  const ItemNumber c = state_.file(top("c"), kTheirs);
  // mv b c; mv a b: b's bytes must be at c before a's are put over them.
  replace(b, c);
  state_.move(a, top("b"));
  EXPECT_EQ(state_.plan(a), Step(WaitFor{b}));
  state_.settlePlanned(b);
  // c stands for b's old place now.
  EXPECT_EQ(state_.plan(a), Step(WaitFor{b}));
}

TEST_F(OrderTest, DoesNotPutAFileOverAFolder) {
  const ItemNumber d = state_.folder(top("a"));
  state_.remove(d);
  const ItemNumber a = state_.fileHere(top("a"));
  EXPECT_EQ(state_.plan(a), Step(WaitFor{d}));
}

TEST_F(OrderTest, RemovesWhatWasReplacedAfterTheReplacementHasArrived) {
  const ItemNumber next = state_.fileHere(top("next"));
  const ItemNumber old = state_.file(top("old"));
  state_.remove(old);
  state_.after(old, next);
  EXPECT_EQ(state_.plan(old), Step(WaitFor{next}));
}

TEST_F(OrderTest, RemovesWhatAReplacedFileHadReplacedAfterTheLastOneHasArrived) {
  const ItemNumber last = state_.fileHere(top("last"));
  const ItemNumber next = state_.file(top("next"));
  const ItemNumber old = state_.file(top("old"));
  replace(next, old);
  replace(last, next);
  EXPECT_EQ(state_.item(next).after(), std::vector{last});
  EXPECT_EQ(state_.item(old).after(), (std::vector{last, next}));
}

TEST_F(OrderTest, LooksBeforeARemovalForWhatItComesAfter) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber kept = state_.file({d, "kept"});
  const ItemNumber old = state_.file(top("old"));
  state_.remove(old);
  state_.after(old, kept);
  const Step step = state_.plan(old);
  ASSERT_TRUE(std::holds_alternative<Push>(step));
  const View view(state_.tree());
  EXPECT_EQ(foldersOf(*view, std::get<Push>(step)), (std::vector{ItemNumber::root, d}));
}

TEST_F(OrderTest, RemovesWhatWasReplacedAfterTheCopyBesideHasArrivedToo) {
  const ItemNumber b = state_.file(top("b"), kOurs);
  const ItemNumber a = state_.file(top("a"));
  replace(b, a);
  state_.settlePlanned(b);
  state_.changeThere(b, kTheirs);
  state_.settlePlanned(b);
  const Step step = state_.plan(a);
  ASSERT_TRUE(std::holds_alternative<WaitFor>(step));
  EXPECT_NE(std::get<WaitFor>(step).item, b);
}

TEST_F(OrderTest, EmptiesAFolderBeforeItGoes) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.file({d, "f"});
  state_.move(f, top("f"));
  state_.remove(d);
  EXPECT_EQ(state_.plan(d), Step(WaitFor{f}));
}

TEST_F(OrderTest, TurnsANestingRound) {
  const ItemNumber a = state_.folder(top("a"));
  const ItemNumber b = state_.folder({a, "b"});
  // mv a/b x; mv a x/a
  state_.move(b, top("x"));
  state_.move(a, {b, "a"});
  EXPECT_EQ(state_.plan(a), Step(WaitFor{b}));
  EXPECT_EQ(state_.plan(b), Step(Push{Change::move, b, top("x"), kNone}));
}

TEST_F(OrderTest, BreaksARingByAThirdName) {
  const ItemNumber a = state_.file(top("a"));
  const ItemNumber b = state_.file(top("b"));
  state_.move(a, top("t"));
  state_.move(b, top("a"));
  state_.move(a, top("b"));
  const Step third = Push{Change::move, a, top("~a1"), kNone};
  EXPECT_EQ(state_.plan(a), third);
  EXPECT_EQ(state_.plan(b), third) << "whichever is asked about";
}

TEST_F(OrderTest, GivesAThirdNameToWhatIsRemovedToo) {
  // mv d/c t; rmdir d; mv t d
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber c = state_.folder({d, "c"});
  state_.move(c, top("t"));
  state_.remove(d);
  state_.move(c, top("d"));
  EXPECT_EQ(state_.plan(c), Step(Push{Change::move, d, top("~d1"), kNone}));
}

TEST_F(OrderTest, UsesNoNameThatALateRequestMayGive) {
  const ItemNumber a = state_.file(top("a"));
  const ItemNumber b = state_.file(top("b"));
  const ItemNumber other = state_.fileHere(top("~a2"));
  state_.sent(Verb::move, other, "x", "~a1");
  state_.move(a, top("t"));
  state_.move(b, top("a"));
  state_.move(a, top("b"));
  EXPECT_EQ(state_.plan(a), Step(Push{Change::move, a, top("~a3"), kNone}));
}

TEST_F(OrderTest, LooksForARequestWithoutAnAnswerBeforeAnythingElse) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber sent = state_.sent(Verb::put, a, "", "a", kOurs);
  state_.change(sent, false, false);
  EXPECT_EQ(state_.plan(a), Step(Look{{ItemNumber::root}}));
}

TEST_F(OrderTest, LooksAgainWhenARequestCanNoLongerLand) {
  const ItemNumber a = state_.file(top("a"));
  const IntentNumber sent = state_.sent(Verb::put, a, "", "a", kOurs);
  EXPECT_EQ(state_.forIntent(sent, kStart), Step(WaitUntil{kStart + std::chrono::minutes(10)}));
  EXPECT_EQ(state_.forIntent(sent, kStart + std::chrono::minutes(10)),
            Step(Look{{ItemNumber::root}}));
  state_.change(sent, true, true);
  EXPECT_EQ(state_.forIntent(sent, kStart), Step(Settle{Resolution::end, {}, {}, {}, sent}));
}

TEST_F(OrderTest, KeepsARequestUntilWhatALookFoundIsMerged) {
  const ItemNumber a = state_.fileThere(top("a"));
  const IntentNumber sent = state_.sent(Verb::put, a, "", "b", kOurs);
  state_.change(sent, true, true);
  EXPECT_FALSE(std::holds_alternative<Settle>(state_.forIntent(sent, kStart)));
  state_.settlePlanned(a);
  EXPECT_TRUE(std::holds_alternative<Settle>(state_.forIntent(sent, kStart)));
}

TEST_F(OrderTest, FetchesWhatItMovesToWhereALateRemovalMayDestroyIt) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.sent(Verb::remove, a, "b", "");
  state_.move(a, top("b"));
  EXPECT_EQ(state_.plan(a), Step(Fetch{a}));
}

TEST_F(OrderTest, FetchesWhatItMovesToWhereALatePutMayDestroyIt) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.sent(Verb::put, a, "", "b", kFromBefore);
  state_.move(a, top("b"));
  EXPECT_EQ(state_.plan(a), Step(Fetch{a}));
}

TEST_F(OrderTest, FetchesNothingForWhatARequestMayDestroyThatCanNoLongerLand) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.change(state_.sent(Verb::remove, a, "b", ""), true, true);
  state_.move(a, top("b"));
  EXPECT_EQ(state_.plan(a), Step(Push{Change::move, a, top("b"), kNone}));
}

TEST_F(OrderTest, MovesAFolderOnlyWhereNoLateRemovalMayDestroyWhatOthersPutIntoIt) {
  const ItemNumber d = state_.folder(top("d"));
  state_.sent(Verb::remove, d, "e", "");
  state_.move(d, top("e"));
  EXPECT_EQ(state_.plan(d), Step(WaitUntil{kStart + std::chrono::minutes(10)}));
}

}  // namespace
}  // namespace kestrowan::test
