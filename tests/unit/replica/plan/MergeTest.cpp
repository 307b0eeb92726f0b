#include "replica/plan/Merge.h"

#include <gtest/gtest.h>

#include "unit/replica/plan/StateBuilder.h"

namespace kestrowan::test {
namespace {

Step settling(Resolution resolution, ItemNumber item, ItemNumber other = ItemNumber::none,
              Place place = {}) {
  return Settle{resolution, item, other, std::move(place)};
}

class MergeTest : public testing::Test {
 protected:
  static Place top(const std::string& name) { return StateBuilder::top(name); }

  StateBuilder state_;
};

TEST_F(MergeTest, HasNothingToDoForWhatIsInStep) {
  EXPECT_EQ(state_.plan(state_.file(top("a"))), Step(Nothing{}));
  EXPECT_EQ(state_.plan(state_.file(top("b"), kNone)), Step(Nothing{}));
  EXPECT_EQ(state_.plan(state_.folder(top("d"))), Step(Nothing{}));
}

TEST_F(MergeTest, DropsWhatIsNowhere) {
  const ItemNumber a = state_.fileHere(top("a"));
  state_.remove(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::drop, a));
  state_.settlePlanned(a);
  EXPECT_FALSE(state_.has(a));
}

TEST_F(MergeTest, FetchesWhatMayBeItsOwnPut) {
  const ItemNumber a = state_.fileHere(top("b"));
  state_.sent(Verb::put, a, "", "a", kOurs);
  const ItemNumber found = state_.fileThere(top("a"));
  EXPECT_EQ(state_.plan(found), Step(Fetch{found}));
}

TEST_F(MergeTest, TakesTheEffectOfAPutWithoutAnAnswerForTheItemThatAsked) {
  const ItemNumber a = state_.fileHere(top("a"));
  state_.sent(Verb::put, a, "", "a", kOurs);
  const ItemNumber found = state_.fileThere(top("a"), kOurs);
  EXPECT_EQ(state_.plan(found), settling(Resolution::own, found, a));
  state_.settlePlanned(found);
  EXPECT_FALSE(state_.has(found));
  EXPECT_TRUE(state_.item(a).isInStep());
}

TEST_F(MergeTest, TakesNoOtherBytesForTheEffectOfItsPut) {
  const ItemNumber a = state_.fileHere(top("b"));
  state_.sent(Verb::put, a, "", "a", kOurs);
  const ItemNumber found = state_.fileThere(top("a"), kTheirs);
  EXPECT_EQ(state_.plan(found), settling(Resolution::show, found));
}

TEST_F(MergeTest, PushesAgainWhatAnOlderPutOverwroteLate) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.changeThere(a, kFromBefore);
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top("a"), kOurs}));
}

TEST_F(MergeTest, PushesAgainWhatAPutOfAnItemThatIsNoMoreOverwroteLate) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  state_.sent(Verb::put, ItemNumber::none, "", "a", kFromBefore);
  state_.changeThere(a, kFromBefore);
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top("a"), kOurs}));
}

TEST_F(MergeTest, TakesNothingBelowThePlaceOfAPutForItsEffect) {
  const ItemNumber d = state_.folder(top("d"));
  state_.sent(Verb::put, ItemNumber{100}, "", "d", kOurs);
  const ItemNumber found = state_.fileThere({d, "f"});
  EXPECT_EQ(state_.plan(found), settling(Resolution::show, found));
}

TEST_F(MergeTest, RemovesASecondCopyAfterTheFirstIsKnownToBeThere) {
  const ItemNumber b = state_.file(top("b"), kOurs);
  state_.sent(Verb::put, b, "", "a", kOurs);
  const ItemNumber stray = state_.fileThere(top("a"), kOurs);
  state_.settlePlanned(stray);
  EXPECT_EQ(state_.plan(stray), Step(Push{Change::remove, stray, top("a"), kNone}));
  EXPECT_EQ(state_.item(stray).after(), std::vector{b});
  state_.removeThere(b);
  state_.settlePlanned(b);
  EXPECT_EQ(state_.plan(stray), settling(Resolution::show, stray));
}

TEST_F(MergeTest, GivesAFileThatIsKnownToNoOther) {
  const ItemNumber a = state_.file(top("a"));
  const ItemNumber b = state_.fileHere(top("b"));
  state_.sent(Verb::put, b, "", "a", kOurs);
  state_.changeThere(a, kOurs);
  EXPECT_EQ(state_.plan(a), settling(Resolution::own, a, b));
  state_.settlePlanned(a);
  EXPECT_EQ(state_.item(a).here()->content, kOld);
  EXPECT_FALSE(state_.item(b).there());
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top("a"), kOld}));
}

TEST_F(MergeTest, RemovesASecondCopyAtOnceWhenTheFirstIsToGoToo) {
  const ItemNumber b = state_.file(top("b"), kOurs);
  state_.sent(Verb::put, b, "", "a", kOurs);
  state_.remove(b);
  const ItemNumber stray = state_.fileThere(top("a"), kOurs);
  state_.after(b, stray);
  state_.settlePlanned(stray);
  EXPECT_TRUE(state_.item(stray).after().empty()) << "they would wait for each other";
  EXPECT_EQ(state_.plan(stray), Step(Push{Change::remove, stray, top("a"), kNone}));
}

TEST_F(MergeTest, ShowsWhatLandsOfAnItemThatWasRemovedThere) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  state_.sent(Verb::put, a, "", "b", kOurs);
  state_.removeThere(a);
  state_.settlePlanned(a);
  const ItemNumber found = state_.fileThere(top("b"), kOurs);
  EXPECT_EQ(state_.plan(found), settling(Resolution::show, found));
}

TEST_F(MergeTest, RemovesOtherContentsThatWaitForAnItemThatWasRemovedThere) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  const ItemNumber unknown = state_.file(top("b"), kNone);
  const ItemNumber next = state_.file(top("c"), kNone);
  const ItemNumber other = state_.file(top("d"), kOld);
  const ItemNumber same = state_.file(top("e"), kOurs);
  for (const ItemNumber item : {unknown, other, same}) state_.remove(item);
  state_.after(unknown, next);
  state_.after(other, a);
  state_.after(same, next);
  for (const ItemNumber item : {a, next}) {
    state_.removeThere(item);
    state_.settlePlanned(item);
    EXPECT_FALSE(state_.has(item));
  }
  for (const ItemNumber item : {unknown, other, same}) {
    const Place place = state_.item(item).there()->place;
    EXPECT_EQ(state_.plan(item), Step(Push{Change::remove, item, place, kNone}));
  }
}

TEST_F(MergeTest, GivesNothingToAnItemOfAnotherKind) {
  const ItemNumber d = state_.folderHere(top("d"));
  state_.sent(Verb::put, d, "", "a", kOurs);
  const ItemNumber found = state_.fileThere(top("a"), kOurs);
  state_.settlePlanned(found);
  EXPECT_TRUE(state_.item(found).there());
  EXPECT_FALSE(state_.item(d).there());
}

TEST_F(MergeTest, ExplainsAFolderByOneRequestOnce) {
  const ItemNumber d = state_.folderHere(top("d"));
  state_.sent(Verb::makeFolder, d, "", "d");
  const ItemNumber found = state_.folderThere(top("d"));
  EXPECT_EQ(state_.plan(found), settling(Resolution::own, found, d));
  state_.settlePlanned(found);
  EXPECT_TRUE(state_.item(d).isInStep());
  state_.remove(d);
  state_.removeThere(d);
  const ItemNumber again = state_.folderThere(top("d"));
  EXPECT_EQ(state_.plan(again), settling(Resolution::show, again));
}

TEST_F(MergeTest, ShowsWhatIsNewWithoutFetchingIt) {
  const ItemNumber a = state_.fileThere(top("a"));
  EXPECT_EQ(state_.plan(a), settling(Resolution::show, a));
  state_.settlePlanned(a);
  EXPECT_TRUE(state_.item(a).isInStep());
}

TEST_F(MergeTest, FetchesWhatIsNewWhereALateRemovalMayDestroyIt) {
  const ItemNumber gone = state_.folderHere(top("d"));
  state_.sent(Verb::remove, gone, "a", "");
  const ItemNumber a = state_.fileThere(top("a"));
  EXPECT_EQ(state_.plan(a), Step(Fetch{a}));
}

TEST_F(MergeTest, ShowsAFolderBeforeWhatIsInIt) {
  const ItemNumber d = state_.folderThere(top("d"));
  const ItemNumber f = state_.fileThere({d, "f"});
  EXPECT_EQ(state_.plan(f), Step(WaitFor{d}));
  state_.settlePlanned(d);
  EXPECT_EQ(state_.plan(f), settling(Resolution::show, f));
}

TEST_F(MergeTest, BringsAFolderBackForWhatIsNewInIt) {
  const ItemNumber d = state_.folder(top("d"));
  state_.remove(d);
  const ItemNumber f = state_.fileThere({d, "f"});
  EXPECT_EQ(state_.plan(f), settling(Resolution::back, d));
  state_.settlePlanned(f);
  EXPECT_EQ(state_.plan(d), settling(Resolution::show, d));
}

TEST_F(MergeTest, PutsOursAsideForTheirs) {
  const ItemNumber ours = state_.fileHere(top("a"));
  const ItemNumber theirs = state_.fileThere(top("a"), kTheirs);
  EXPECT_EQ(state_.plan(theirs), settling(Resolution::aside, ours, ItemNumber::none, top("a (2)")));
  state_.settlePlanned(theirs);
  EXPECT_EQ(state_.plan(theirs), settling(Resolution::show, theirs));
}

TEST_F(MergeTest, PutsOursAsideThatComesFromElsewhere) {
  const ItemNumber ours = state_.file(top("b"));
  state_.move(ours, top("a"));
  const ItemNumber theirs = state_.fileThere(top("a"));
  EXPECT_EQ(state_.plan(theirs), settling(Resolution::aside, ours, ItemNumber::none, top("a (2)")));
}

TEST_F(MergeTest, FetchesTheirsToCompareItWithOurs) {
  state_.fileHere(top("a"));
  const ItemNumber theirs = state_.fileThere(top("a"));
  EXPECT_EQ(state_.plan(theirs), Step(Fetch{theirs}));
}

TEST_F(MergeTest, TakesEqualFilesMadeOnBothSidesForOne) {
  const ItemNumber ours = state_.fileHere(top("a"));
  const ItemNumber theirs = state_.fileThere(top("a"), kOurs);
  EXPECT_EQ(state_.plan(theirs), settling(Resolution::join, ours, theirs));
  state_.settlePlanned(theirs);
  EXPECT_TRUE(state_.item(ours).isInStep());
}

TEST_F(MergeTest, MakesFoldersOfOneNameOne) {
  const ItemNumber ours = state_.folderHere(top("d"));
  const ItemNumber theirs = state_.folderThere(top("d"));
  const ItemNumber inside = state_.fileThere({theirs, "f"});
  const ItemNumber gone = state_.fileHere(top("g"));
  {
    Edit edit(state_.tree());
    edit.setAgreed(gone, There{{theirs, "g"}, kVersion1, kOld});
    edit.commit();
  }
  EXPECT_EQ(state_.plan(theirs), settling(Resolution::join, ours, theirs));
  state_.settlePlanned(theirs);
  EXPECT_EQ(state_.item(inside).there()->place.folder, ours);
  EXPECT_EQ(state_.item(gone).agreed()->place.folder, ours);
}

TEST_F(MergeTest, DoesNotTakeWhatWasListedOfAFolderForWhatAnotherHolds) {
  const ItemNumber ours = state_.folder(top("d"));
  state_.setListed(ours);
  state_.removeThere(ours);
  state_.move(ours, top("e"));
  state_.settlePlanned(ours);
  state_.settlePlanned(state_.folderThere(top("e")));
  EXPECT_TRUE(state_.item(ours).isInStep());
  EXPECT_FALSE(state_.item(ours).attributes().listedAt);
}

TEST_F(MergeTest, LetsAnItemThatIsGoneLeaveItsPlaceFirst) {
  const ItemNumber gone = state_.file(top("a"));
  state_.removeThere(gone);
  const ItemNumber theirs = state_.folderThere(top("a"));
  EXPECT_EQ(state_.plan(theirs), Step(WaitFor{gone}));
}

TEST_F(MergeTest, BringsBackWhatChangedThereAfterItsRemoval) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(a);
  state_.changeThere(a);
  state_.after(a, state_.fileHere(top("b")));
  EXPECT_EQ(state_.plan(a), settling(Resolution::back, a));
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::show, a));
  EXPECT_TRUE(state_.item(a).after().empty());
}

TEST_F(MergeTest, BringsAFolderBackForWhatWasNeverSeenInIt) {
  const ItemNumber d = state_.folder(top("d"));
  state_.remove(d);
  EXPECT_EQ(state_.plan(d), Step(Push{Change::remove, d, top("d"), kNone}));
  {
    const View view(state_.tree());
    EXPECT_EQ(foldersOf(*view, Push{Change::remove, d, top("d"), kNone}),
              (std::vector{ItemNumber::root, d}))
        << "it is listed before";
  }
  const ItemNumber unseen = state_.fileThere({d, "f"});
  EXPECT_EQ(state_.plan(d), Step(WaitFor{unseen}));
  state_.settlePlanned(unseen);
  EXPECT_EQ(state_.plan(d), settling(Resolution::show, d));
}

TEST_F(MergeTest, RemovesThereWhatWasRemovedHere) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::remove, a, top("a"), kNone}));
}

TEST_F(MergeTest, CreatesThereWhatIsOnlyHere) {
  const ItemNumber a = state_.fileHere(top("a"));
  const ItemNumber d = state_.folderHere(top("d"));
  EXPECT_EQ(state_.plan(a), Step(Push{Change::create, a, top("a"), kOurs}));
  EXPECT_EQ(state_.plan(d), Step(Push{Change::create, d, top("d"), kNone}));
}

TEST_F(MergeTest, DoesNothingForWhatStaysHere) {
  const ItemNumber a = state_.fileHere(top(".a"));
  const ItemNumber d = state_.folderHere(top(".d"));
  const ItemNumber inside = state_.fileHere({d, "f"});
  for (const ItemNumber item : {a, d, inside}) EXPECT_EQ(state_.plan(item), Step(Nothing{}));
  const ItemNumber old = state_.file(top("old"));
  state_.remove(old);
  state_.after(old, a);
  EXPECT_EQ(state_.plan(old), Step(Push{Change::remove, old, top("old"), kNone}))
      << "its replacement never arrives";
  state_.move(a, top("a"));
  EXPECT_EQ(state_.plan(a), Step(Push{Change::create, a, top("a"), kOurs}));
}

TEST_F(MergeTest, RemovesThereWhatCameToANameThatStaysHere) {
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top(".a"));
  EXPECT_EQ(state_.plan(a), settling(Resolution::part, a));
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(a), Step(Nothing{}));
  EXPECT_EQ(state_.item(a).here()->content, kOld);
  const ItemNumber left = View(state_.tree())->thereAt(top("a"))->number();
  EXPECT_EQ(state_.plan(left), Step(Push{Change::remove, left, top("a"), kNone}));
}

TEST_F(MergeTest, ShowsWhatChangedThereOfAFileThatCameToANameThatStaysHere) {
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top(".a"));
  state_.changeThere(a);
  state_.settlePlanned(a);
  const ItemNumber left = View(state_.tree())->thereAt(top("a"))->number();
  EXPECT_EQ(state_.plan(left), settling(Resolution::back, left));
}

TEST_F(MergeTest, FetchesWhatCameToANameThatStaysHere) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.move(a, top(".a"));
  EXPECT_EQ(state_.plan(a), Step(Fetch{a}));
  state_.changeThere(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::pull, a));
  state_.removeThere(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::forget, a));
}

TEST_F(MergeTest, KeepsAFolderHereAloneWithAllInIt) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.file({d, "f"});
  state_.move(d, top(".d"));
  state_.settlePlanned(d);
  EXPECT_EQ(state_.item(f).agreed()->place, state_.item(f).there()->place);
  EXPECT_EQ(state_.plan(f), settling(Resolution::part, f));
  state_.settlePlanned(f);
  EXPECT_EQ(state_.plan(f), Step(Nothing{}));
  const ItemNumber left = View(state_.tree())->thereAt(top("d"))->number();
  const ItemNumber leftInside = View(state_.tree())->thereAt({left, "f"})->number();
  EXPECT_EQ(state_.plan(left), Step(WaitFor{leftInside}));
  EXPECT_EQ(state_.plan(leftInside), Step(Push{Change::remove, leftInside, {left, "f"}, kNone}));
}

TEST_F(MergeTest, TreatsWhatTheProviderHasByANameThatStaysHereAsAnyOther) {
  const ItemNumber a = state_.file(top(".a"));
  state_.write(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top(".a"), kOurs}));
}

TEST_F(MergeTest, ForgetsAFileWhoseBytesAreNowhere) {
  const ItemNumber a = state_.fileHere(top("a"), kNone);
  EXPECT_EQ(state_.plan(a), settling(Resolution::forget, a));
}

TEST_F(MergeTest, RemovesHereWhatWasRemovedThere) {
  const ItemNumber a = state_.file(top("a"));
  state_.removeThere(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::forget, a));
  state_.settlePlanned(a);
  EXPECT_FALSE(state_.has(a));
  EXPECT_EQ(state_.journal().history().size(), 1U);
}

TEST_F(MergeTest, MakesAnewWhatChangedHereAndWasRemovedThere) {
  const ItemNumber a = state_.file(top("a"));
  state_.write(a);
  state_.removeThere(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::anew, a));
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::create, a, top("a"), kOurs}));
}

TEST_F(MergeTest, MakesAnewWhatMovedHereAndWasRemovedThere) {
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top("b"));
  state_.removeThere(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::anew, a));
}

TEST_F(MergeTest, MakesAnewWhatAnOlderPutMayHaveHiddenFromTheRemover) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.removeThere(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::create, a, top("a"), kOurs}));
}

TEST_F(MergeTest, ForgetsAMovedFileThatIsGoneAndWasNeverDownloaded) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.move(a, top("b"));
  state_.removeThere(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::forget, a));
}

TEST_F(MergeTest, MakesAMovedFolderAnewWithAllInItThatIsGoneToo) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.file({d, "f"});
  const ItemNumber g = state_.file({d, "g"}, kNone);
  state_.move(d, top("e"));
  for (const ItemNumber item : {f, g, d}) state_.removeThere(item);
  EXPECT_EQ(state_.plan(d), settling(Resolution::anew, d));
  state_.settlePlanned(d);
  EXPECT_EQ(state_.plan(f), Step(WaitFor{d}));
  EXPECT_FALSE(state_.has(g)) << "its bytes are nowhere";
}

TEST_F(MergeTest, DecidesAboutWhatIsInAFolderThatIsGoneFirst) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.file({d, "f"});
  for (const ItemNumber item : {f, d}) state_.removeThere(item);
  EXPECT_EQ(state_.plan(d), Step(WaitFor{f}));
  state_.settlePlanned(f);
  EXPECT_EQ(state_.plan(d), settling(Resolution::forget, d));
}

TEST_F(MergeTest, KeepsAFolderThatIsGoneForWhatStaysInIt) {
  const ItemNumber d = state_.folder(top("d"));
  state_.fileHere({d, "f"});
  state_.removeThere(d);
  EXPECT_EQ(state_.plan(d), settling(Resolution::anew, d));
}

TEST_F(MergeTest, PullsWhatChangedThereAloneWithoutFetchingIt) {
  const ItemNumber a = state_.file(top("a"));
  state_.changeThere(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::pull, a));
  state_.settlePlanned(a);
  EXPECT_TRUE(state_.item(a).isInStep());
  EXPECT_EQ(state_.item(a).here()->content, kNone);
  ASSERT_EQ(state_.journal().history().size(), 1U);
  EXPECT_EQ(state_.journal().history()[0].here.content, kOld);
}

TEST_F(MergeTest, PullsContentsAndLeavesThePlaceThatIsAgreed) {
  const ItemNumber a = state_.file(top("a"));
  {
    Edit edit(state_.tree());
    edit.setThere(a, There{top("b"), kVersion2, kTheirs});
    edit.commit();
  }
  state_.apply(Settle{Resolution::pull, a, {}, {}});
  EXPECT_EQ(state_.item(a).agreed(), (There{top("a"), kVersion2, kTheirs}));
}

TEST_F(MergeTest, FetchesWhatChangedOnBothSides) {
  const ItemNumber a = state_.file(top("a"));
  state_.write(a);
  state_.changeThere(a);
  EXPECT_EQ(state_.plan(a), Step(Fetch{a}));
}

TEST_F(MergeTest, AgreesOnEqualContentsOfBothSides) {
  const ItemNumber a = state_.file(top("a"));
  state_.write(a);
  state_.changeThere(a, kOurs);
  EXPECT_EQ(state_.plan(a), settling(Resolution::agree, a));
  state_.settlePlanned(a);
  EXPECT_TRUE(state_.item(a).isInStep());
}

TEST_F(MergeTest, LaysOursBesideTheirs) {
  const ItemNumber a = state_.file(top("a"));
  state_.write(a);
  state_.changeThere(a, kTheirs);
  EXPECT_EQ(state_.plan(a),
            settling(Resolution::beside, a, ItemNumber::none, top("a (conflict 1)")));
  state_.settlePlanned(a);
  EXPECT_TRUE(state_.item(a).isInStep());
  EXPECT_EQ(state_.item(a).here()->content, kTheirs);
  ASSERT_EQ(state_.journal().history().size(), 1U) << "ours is another item's now";
  EXPECT_EQ(state_.journal().history()[0].here.content, kOld);
}

TEST_F(MergeTest, LaysBesideWhatAnOlderPutMayHaveHiddenFromTheOtherClient) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  state_.sent(Verb::put, a, "", "x", kFromBefore);
  state_.changeThere(a);
  EXPECT_EQ(state_.plan(a), Step(Fetch{a}));
  state_.changeThere(a, kTheirs);
  EXPECT_EQ(state_.plan(a),
            settling(Resolution::beside, a, ItemNumber::none, top("a (conflict 1)")));
}

TEST_F(MergeTest, LaysBesideWhatALateRemovalMayHaveHiddenFromTheOtherClient) {
  const ItemNumber a = state_.file(top("a"), kOurs);
  state_.sent(Verb::remove, ItemNumber::none, "a", "");
  state_.changeThere(a, kTheirs);
  EXPECT_EQ(state_.plan(a),
            settling(Resolution::beside, a, ItemNumber::none, top("a (conflict 1)")));
}

TEST_F(MergeTest, LaysNothingBesideThatWasNeverDownloaded) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.sent(Verb::put, a, "", "x", kFromBefore);
  state_.changeThere(a, kTheirs);
  EXPECT_EQ(state_.plan(a), settling(Resolution::pull, a));
}

TEST_F(MergeTest, LaysOursBesideUnderANameThatIsFreeThereToo) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(state_.file(top("a (conflict 1)")));
  state_.write(a);
  state_.changeThere(a, kTheirs);
  EXPECT_EQ(state_.plan(a),
            settling(Resolution::beside, a, ItemNumber::none, top("a (conflict 2)")));
}

TEST_F(MergeTest, MovesThereWhatMovedHereThenSendsItsContents) {
  const ItemNumber a = state_.file(top("a"));
  state_.here(a, top("b"), kOurs);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::move, a, top("b"), kNone}));
}

TEST_F(MergeTest, SendsContentsThatChangedHere) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.write(a);
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top("a"), kOurs}));
}

TEST_F(MergeTest, PullsWhatLandedOnAFileThatWasNeverDownloaded) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.changeThere(a, kFromBefore);
  state_.settlePlanned(a);
  EXPECT_EQ(state_.plan(a), settling(Resolution::pull, a));
}

}  // namespace
}  // namespace kestrowan::test
