#include "replica/plan/Surroundings.h"

#include <gtest/gtest.h>

#include "unit/replica/plan/StateBuilder.h"

namespace kestrowan::test {
namespace {

constexpr Time kStart{};

class SurroundingsTest : public testing::Test {
 protected:
  static Place top(const std::string& name) { return StateBuilder::top(name); }
  static Step create(ItemNumber item, const Place& place) {
    return Push{Change::create, item, place, kOurs};
  }

  StateBuilder state_;
};

TEST_F(SurroundingsTest, SendsWhileARequestIsUnderWayElsewhere) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber a = state_.fileHere({d, "a"});
  const ItemNumber b = state_.fileHere({d, "b"});
  state_.underWay(Verb::put, b, "", "d/b", kOurs);
  EXPECT_EQ(state_.plan(a), create(a, {d, "a"}));
}

TEST_F(SurroundingsTest, WaitsForTheAnswerToItsOwnRequest) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber sent = state_.underWay(Verb::put, a, "", "a", kOurs);
  EXPECT_EQ(state_.plan(a), Step(WaitForAnswer{sent}));
  state_.move(a, top("b"));
  EXPECT_EQ(state_.plan(a), Step(WaitForAnswer{sent})) << "wherever it is now";
}

TEST_F(SurroundingsTest, WaitsForRequestsAboveAndBelow) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.fileHere({d, "f"});
  const ItemNumber g = state_.fileHere({d, "g"});
  state_.move(d, top("e"));
  const IntentNumber above = state_.underWay(Verb::move, d, "d", "e");
  EXPECT_EQ(state_.plan(f), Step(WaitForAnswer{above}));
  state_.endAll();
  const IntentNumber below = state_.underWay(Verb::put, g, "", "d/g", kOurs);
  EXPECT_EQ(state_.plan(d), Step(WaitForAnswer{below}));
}

TEST_F(SurroundingsTest, WaitsForTheAnswerOfWhatLeavesItsPlace) {
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top("b"));
  const IntentNumber leaving = state_.underWay(Verb::move, a, "a", "b");
  const ItemNumber next = state_.fileHere(top("a"));
  EXPECT_EQ(state_.plan(next), Step(WaitForAnswer{leaving}));
}

TEST_F(SurroundingsTest, SendsWhileSomethingElsewhereIsNotMerged) {
  const ItemNumber a = state_.fileHere(top("a"));
  state_.fileThere(top("b"));
  EXPECT_EQ(state_.plan(a), create(a, top("a")));
}

TEST_F(SurroundingsTest, SendsWhileARequestElsewhereWasNotLookedFor) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber other = state_.fileHere({d, "b"});
  state_.change(state_.sent(Verb::put, other, "", "d/b", kOurs), false, false);
  const ItemNumber a = state_.fileHere(top("a"));
  EXPECT_EQ(state_.plan(a), create(a, top("a")));
  EXPECT_EQ(state_.plan(other), Step(Look{{d}})) << "only the folder that it concerns";
}

TEST_F(SurroundingsTest, LooksAgainWhenARequestOfItsOwnCanNoLongerLand) {
  const ItemNumber a = state_.fileHere(top("a"));
  const ItemNumber b = state_.fileHere(top("b"));
  state_.sent(Verb::put, b, "", "b", kOurs);
  EXPECT_EQ(state_.plan(a, kStart + kLandingTime), create(a, top("a")));
  EXPECT_EQ(state_.plan(b, kStart + kLandingTime), Step(Look{{ItemNumber::root}}));
}

TEST_F(SurroundingsTest, WaitsForALookThatARequestUnderWayWouldSpoil) {
  const ItemNumber a = state_.fileHere(top("a"));
  const ItemNumber d = state_.folder(top("d"));
  state_.change(state_.sent(Verb::move, a, "x", "d/y"), false, false);
  const IntentNumber spoiling = state_.underWay(Verb::move, d, "d", "e");
  EXPECT_EQ(state_.plan(a), Step(WaitForAnswer{spoiling}));
}

TEST_F(SurroundingsTest, WaitsForWhatAMoveMayHaveBroughtToItsPlace) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber a = state_.fileHere({d, "a"});
  const ItemNumber e = state_.folder(top("e"));
  state_.sent(Verb::move, d, "c", "d");
  const IntentNumber taking = state_.underWay(Verb::move, e, "e", "c");
  EXPECT_EQ(state_.plan(a), Step(WaitForAnswer{taking})) << "no listing of d can tell";
}

TEST_F(SurroundingsTest, GivesNothingToAnItemWhoseOwnRequestIsUnderWay) {
  const ItemNumber a = state_.fileHere(top("b"));
  state_.sent(Verb::put, a, "", "a", kOurs);
  const IntentNumber again = state_.underWay(Verb::put, a, "", "b", kOurs);
  const ItemNumber found = state_.fileThere(top("a"), kOurs);
  EXPECT_EQ(state_.plan(found), Step(WaitForAnswer{again}));
}

TEST_F(SurroundingsTest, JoinsNothingToAnItemWhoseOwnRequestIsUnderWay) {
  const ItemNumber ours = state_.fileHere(top("b"));
  const IntentNumber sent = state_.underWay(Verb::put, ours, "", "a", kOurs);
  const ItemNumber theirs = state_.fileThere(top("b"), kOurs);
  EXPECT_EQ(state_.plan(theirs), Step(WaitForAnswer{sent}));
}

TEST_F(SurroundingsTest, WaitsForWhatIsFoundWhereARequestOfItsOwnMayHaveBroughtIt) {
  const ItemNumber a = state_.fileHere(top("b"));
  state_.sent(Verb::put, a, "", "a", kOurs);
  const ItemNumber found = state_.fileThere(top("a"));
  EXPECT_EQ(state_.plan(a), Step(WaitFor{found})) << "it may be its own";
}

TEST_F(SurroundingsTest, WaitsForWhatIsToBeMergedAtItsPlace) {
  const ItemNumber theirs = state_.fileThere(top("b"));
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top("b"));
  EXPECT_EQ(state_.plan(a), Step(WaitFor{theirs}));
}

TEST_F(SurroundingsTest, RemovesAfterWhatIsStillToBeMerged) {
  const ItemNumber kept = state_.file(top("kept"));
  const ItemNumber old = state_.file(top("old"));
  state_.remove(old);
  state_.after(old, kept);
  state_.changeThere(kept);
  EXPECT_EQ(state_.plan(old), Step(WaitFor{kept}));
}

TEST_F(SurroundingsTest, RemovesAfterWhatIsStillToBeLookedFor) {
  const ItemNumber kept = state_.file(top("kept"));
  const ItemNumber old = state_.file(top("old"));
  state_.remove(old);
  state_.after(old, kept);
  const IntentNumber sent = state_.sent(Verb::put, kept, "", "kept", kFromBefore);
  state_.change(sent, false, false);
  EXPECT_EQ(state_.plan(old), Step(WaitFor{kept}));
}

TEST_F(SurroundingsTest, TakesNoPlaceOfAFileThatIsJustBeingRemoved) {
  const ItemNumber old = state_.file(top("a"));
  state_.remove(old);
  const IntentNumber removing = state_.underWay(Verb::remove, old, "a", "");
  const ItemNumber next = state_.fileHere(top("a"));
  EXPECT_EQ(state_.plan(next), Step(WaitForAnswer{removing}));
}

TEST_F(SurroundingsTest, WaitsForTheFolderThatLeavesItsInsideAlsoWhileThatWaits) {
  const ItemNumber a = state_.folder(top("a"));
  const ItemNumber b = state_.folder({a, "b"});
  const ItemNumber x = state_.folder(top("x"));
  // rmdir x; mv a/b x; mv a x/a
  state_.remove(x);
  state_.move(b, top("x"));
  state_.move(a, {b, "a"});
  state_.underWay(Verb::remove, x, "x", "");
  EXPECT_EQ(state_.plan(a), Step(WaitFor{b}));
}

TEST_F(SurroundingsTest, TellsWhatARequestNeedsWhoseItemIsNoMore) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber sent = state_.sent(Verb::put, a, "", "a", kOurs);
  state_.remove(a);
  state_.settlePlanned(a);
  EXPECT_EQ(state_.forIntent(sent), Step(WaitUntil{kStart + kLandingTime}));
  state_.change(sent, false, false);
  EXPECT_EQ(state_.forIntent(sent), Step(Look{{ItemNumber::root}}));
  state_.change(sent, true, true);
  EXPECT_EQ(state_.forIntent(sent), Step(Settle{Resolution::end, {}, {}, {}, sent}));
  state_.endAll();
  EXPECT_EQ(state_.forIntent(sent), Step(Nothing{}));
}

TEST_F(SurroundingsTest, EndsARequestWhateverIsToBeMergedElsewhere) {
  const ItemNumber a = state_.file(top("a"));
  const IntentNumber sent = state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.change(sent, true, true);
  state_.fileThere(top("b"));
  EXPECT_EQ(state_.forIntent(sent), Step(Settle{Resolution::end, {}, {}, {}, sent}));
  state_.changeThere(a);
  EXPECT_EQ(state_.forIntent(sent), Step(WaitFor{a}));
}

TEST_F(SurroundingsTest, KeepsARemovalUntilWhatIsBelowItIsMerged) {
  const ItemNumber d = state_.folder(top("d"));
  const IntentNumber sent = state_.sent(Verb::remove, ItemNumber::none, "d", "");
  state_.change(sent, true, true);
  const ItemNumber f = state_.file({d, "f"});
  state_.changeThere(f);
  EXPECT_EQ(state_.forIntent(sent), Step(WaitFor{f}));
}

// A refused request stays what is planned for its item. What the engine does not send blocks what
// waits for that item, and nothing else.

TEST_F(SurroundingsTest, HoldsBackOnlyWhatWaitsForARefusedItem) {
  const ItemNumber refused = state_.folderHere(top("refused"));
  const ItemNumber inside = state_.fileHere({refused, "f"});
  const ItemNumber old = state_.file(top("old"));
  state_.remove(old);
  state_.after(old, inside);
  const ItemNumber other = state_.fileHere(top("other"));
  EXPECT_EQ(state_.plan(refused), Step(Push{Change::create, refused, top("refused"), kNone}));
  EXPECT_EQ(state_.plan(inside), Step(WaitFor{refused}));
  EXPECT_EQ(state_.plan(old), Step(WaitFor{refused}));
  EXPECT_EQ(state_.plan(other), create(other, top("other")));
}

}  // namespace
}  // namespace kestrowan::test
