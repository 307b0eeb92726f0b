#include "replica/plan/Observing.h"

#include "replica/plan/Requests.h"
#include "unit/replica/plan/ObservingFixture.h"

namespace kestrowan::test {
namespace {

using ObservingTest = ObservingFixture;

TEST_F(ObservingTest, WritesWhatIsThereAndNothingElse) {
  const ItemNumber a = state_.file(top("a"));
  state_.write(a);
  lookAtRoot({{"a", file(kVersion2)}, {"b", file()}, {"d", folder()}});
  const Item after = state_.item(a);
  EXPECT_EQ(after.there(), (There{top("a"), kVersion2, kNone}));
  EXPECT_EQ(after.agreed()->version, kVersion1);
  EXPECT_EQ(after.here()->content, kOurs);
  EXPECT_TRUE(thereAt(top("b")));
  EXPECT_TRUE(thereAt(top("d"))->isFolder());
}

TEST_F(ObservingTest, KeepsWhatAnOlderPutMayHaveOverwrittenInAFolderThatIsGone) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.file({d, "f"}, kOurs);
  const ItemNumber g = state_.file({d, "g"}, kOld);
  state_.sent(Verb::put, ItemNumber{100}, "", "d/f", kFromBefore);
  lookAtRoot({});
  EXPECT_FALSE(state_.item(f).agreed());
  EXPECT_TRUE(state_.item(g).agreed());
  state_.settlePlanned(g);
  EXPECT_FALSE(state_.has(g));
  EXPECT_EQ(state_.plan(d), Step(Settle{Resolution::anew, d}));
}

TEST_F(ObservingTest, WritesWhatChangedOfAnItemThatWasRemovedHere) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(a);
  lookAtRoot({{"a", file(kVersion2)}});
  EXPECT_EQ(state_.item(a).there()->version, kVersion2);
}

TEST_F(ObservingTest, TakesWhatAListingLacksForAbsentWithAllInIt) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.file({d, "f"});
  lookAtRoot({});
  EXPECT_FALSE(state_.item(d).there());
  EXPECT_FALSE(state_.item(f).there());
  EXPECT_TRUE(state_.item(f).agreed());
}

TEST_F(ObservingTest, TakesAnItemOfAnotherKindForAnotherItem) {
  const ItemNumber a = state_.file(top("a"));
  lookAtRoot({{"a", folder()}});
  EXPECT_FALSE(state_.item(a).there());
  EXPECT_NE(thereAt(top("a"))->number(), a);
}

TEST_F(ObservingTest, AsksForTheFolderOfAFolderThatIsGone) {
  const ItemNumber d = state_.folder(top("d"));
  Edit edit(state_.tree());
  Listings listings{{Path().child("d"), std::nullopt}};
  EXPECT_EQ(observe(edit, {d}, Shown{listings, kStart, {}}, doubts_).lacking, std::vector{Path()});
}

TEST_F(ObservingTest, AsksForAllFoldersThatRequestsTouch) {
  const ItemNumber d = state_.folder(top("d"));
  state_.sent(Verb::move, d, "x", "d/y");
  EXPECT_EQ(look({}), (std::vector{Path(), Path().child("d")}));
}

TEST_F(ObservingTest, KnowsAnItemThatALostMoveHasMoved) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::move, a, "a", "b");
  lookAtRoot({{"b", file()}});
  EXPECT_EQ(state_.item(a).there()->place, top("b"));
  EXPECT_EQ(state_.item(a).agreed()->place, top("b"));
}

TEST_F(ObservingTest, DoesNotTakeAnotherFileForTheOneThatMoved) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::move, a, "a", "b");
  lookAtRoot({{"b", file(kVersion2)}});
  EXPECT_FALSE(state_.item(a).there());
  EXPECT_NE(thereAt(top("b"))->number(), a);
}

TEST_F(ObservingTest, LetsTheBytesTellWhenAPutMayHaveComeBeforeTheMove) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.sent(Verb::move, a, "a", "b");
  lookAtRoot({{"b", file(kVersion2)}});
  EXPECT_EQ(state_.item(a).there(), (There{top("b"), kVersion2, kNone}));
}

TEST_F(ObservingTest, TakesNothingOfAnotherKindForTheFileThatMoved) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.sent(Verb::move, a, "a", "b");
  lookOnce({{Path(), Listing{{"b", folder()}}}}, kStart);
  EXPECT_EQ(state_.item(a).there()->place, top("a")) << "its absence is still to be proved";
  EXPECT_TRUE(thereAt(top("b"))->isFolder());
}

TEST_F(ObservingTest, LeavesAFileThatIsStillAtItsOldPlaceWhateverIsAtTheNewOne) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.sent(Verb::move, a, "a", "b");
  lookAtRoot({{"a", file()}, {"b", file(kVersion2)}});
  EXPECT_EQ(state_.item(a).there()->place, top("a"));
}

TEST_F(ObservingTest, KnowsAFileThatMovedAlthoughALatePutMadeItsOldPlaceAnew) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::move, a, "a", "b");
  lookAtRoot({{"a", file(kVersion2)}, {"b", file()}});
  EXPECT_EQ(state_.item(a).there()->place, top("b"));
}

TEST_F(ObservingTest, LeavesAFolderThatIsStillAtItsOldPlace) {
  const ItemNumber d = state_.folder(top("d"));
  state_.sent(Verb::move, d, "d", "e");
  lookAtRoot({{"d", folder()}, {"e", folder()}});
  EXPECT_EQ(state_.item(d).there()->place, top("d"));
}

TEST_F(ObservingTest, FollowsMovesThatCameOneAfterTheOther) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::move, a, "b", "c");
  state_.sent(Verb::move, a, "a", "b");
  lookAtRoot({{"c", file()}});
  EXPECT_EQ(state_.item(a).there()->place, top("c"));
}

TEST_F(ObservingTest, FollowsAllMovesThatHaveLanded) {
  const ItemNumber a = state_.file(top("a"));
  const ItemNumber b = state_.file(top("b"));
  state_.sent(Verb::move, a, "a", "x");
  state_.sent(Verb::move, b, "b", "y");
  lookAtRoot({{"x", file()}, {"y", file()}});
  EXPECT_EQ(state_.item(a).there()->place, top("x"));
  EXPECT_EQ(state_.item(b).there()->place, top("y"));
}

TEST_F(ObservingTest, KnowsRequestsBelowAMovedFolderByBothPaths) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.fileHere({d, "f"});
  state_.sent(Verb::move, d, "d", "e");
  state_.sent(Verb::put, f, "", "d/f", kOurs);
  Listings listings{{Path(), Listing{{"e", folder()}}},
                    {Path().child("d"), std::nullopt},
                    {Path().child("e"), Listing{{"f", file()}}}};
  EXPECT_TRUE(look(listings, kStart, {d}).empty());
  std::vector<std::string> targets;
  for (const auto& [number, intent] : state_.journal().intents()) {
    targets.push_back(intent.target->text());
  }
  EXPECT_EQ(targets, (std::vector<std::string>{"e", "d/f", "e/f"}));
  const Item* found = thereAt({d, "f"});
  ASSERT_TRUE(found);
  EXPECT_EQ(state_.plan(found->number()), Step(Fetch{found->number()}));
}

TEST_F(ObservingTest, LeavesWhatARequestUnderWayTouches) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.file({d, "f"});
  const ItemNumber a = state_.file(top("a"));
  state_.underWay(Verb::move, d, "d", "e");
  state_.underWay(Verb::put, a, "", "a", kOurs);
  Edit edit(state_.tree());
  const Listings listings{{Path(), Listing{{"e", folder()}, {"a", file(kVersion2)}}}};
  const auto written = observe(edit, {ItemNumber::root, d}, Shown{listings, kStart, {}}, doubts_);
  EXPECT_TRUE(written.lacking.empty());
  EXPECT_FALSE(written.isWhole);
  EXPECT_EQ(edit->therePath(edit->item(f)).text(), "d/f");
  EXPECT_EQ(edit->item(a).there()->version, kVersion1);
  EXPECT_EQ(edit->thereAt(top("e")), nullptr);
}

TEST_F(ObservingTest, LeavesWhatWasAnsweredSinceTheListingBegan) {
  const ItemNumber a = state_.file(top("a"));
  Edit edit(state_.tree());
  const Shown shown{{{Path(), Listing{{"b", file()}}}}, kStart, {Path().child("a")}};
  const auto written = observe(edit, {ItemNumber::root}, shown, doubts_);
  EXPECT_FALSE(written.isWhole);
  EXPECT_TRUE(edit->item(a).there());
  EXPECT_TRUE(edit->thereAt(top("b")));
}

TEST_F(ObservingTest, LeavesWhatIsBelowAnAnswerSinceTheListingBegan) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber e = state_.folder({d, "e"});
  const ItemNumber f = state_.file({e, "f"}, kNone);
  Edit edit(state_.tree());
  const Shown shown{{{Path().child("d").child("e"), Listing{}}}, kStart, {Path().child("d")}};
  EXPECT_FALSE(observe(edit, {e}, shown, doubts_).isWhole);
  EXPECT_TRUE(edit->item(f).there());
}

TEST_F(ObservingTest, LeavesTheTargetOfAMoveWhoseSourceIsUncertain) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::move, a, "a", "b");
  state_.underWay(Verb::move, a, "a", "c");
  lookAtRoot({{"b", file()}});
  EXPECT_EQ(state_.item(a).there()->place, top("a"));
  EXPECT_EQ(thereAt(top("b")), nullptr);
}

TEST_F(ObservingTest, ListsTheOtherFolderOfAMoveToo) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::move, a, "a", "d/a");
  EXPECT_EQ(look({{Path(), Listing{{"d", folder()}}}}), std::vector{Path().child("d")});
  look({{Path(), Listing{{"d", folder()}}}, {Path().child("d"), Listing{{"a", file()}}}});
  EXPECT_EQ(state_.item(a).there()->place, (Place{d, "a"}));
}

TEST_F(ObservingTest, FollowsMovesFromTheFolderOfAFolderThatIsGone) {
  const ItemNumber gone = state_.folder(top("gone"));
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::move, a, "a", "d/a");
  Listings listings{{Path().child("gone"), std::nullopt}};
  EXPECT_EQ(look(listings, kStart, {gone}), (std::vector{Path(), Path().child("d")}));
  listings[Path()] = Listing{{"d", folder()}};
  listings[Path().child("d")] = Listing{{"a", file()}};
  look(listings, kStart, {gone});
  EXPECT_EQ(state_.item(a).there()->place, (Place{d, "a"}));
}

TEST_F(ObservingTest, LooksForARequestOnlyInItsOwnFolders) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber a = state_.fileHere({d, "a"});
  const IntentNumber sent = state_.sent(Verb::put, a, "", "d/a", kOurs);
  state_.change(sent, false, false);
  lookAtRoot({{"d", folder()}});
  EXPECT_FALSE(state_.journal().intents().at(sent).looked);
  look({{Path().child("d"), Listing{}}}, kStart, {d});
  EXPECT_TRUE(state_.journal().intents().at(sent).looked);
}

TEST_F(ObservingTest, LooksForARequestAlsoWhereAFileStandsForItsFolder) {
  const ItemNumber a = state_.fileHere(top("a"));
  state_.fileThere(top("d"));
  const IntentNumber sent = state_.sent(Verb::put, a, "", "d/a", kOurs);
  state_.change(sent, false, false);
  look({}, kStart, {});
  EXPECT_TRUE(state_.journal().intents().at(sent).looked);
}

TEST_F(ObservingTest, LooksForARequestOnlyWhereNoOtherOneIsUnderWay) {
  const ItemNumber a = state_.file(top("a"));
  const IntentNumber sent = state_.sent(Verb::put, a, "", "a", kFromBefore);
  state_.change(sent, false, false);
  state_.underWay(Verb::put, a, "", "a", kOurs);
  lookAtRoot({{"a", file()}});
  EXPECT_FALSE(state_.journal().intents().at(sent).looked);
}

TEST_F(ObservingTest, WaitsForNoAnswerByTheOtherPathOfARequestUnderWay) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.fileHere({d, "f"});
  state_.sent(Verb::move, d, "d", "e");
  const IntentNumber sent = state_.underWay(Verb::put, f, "", "d/f", kOurs);
  lookAtRoot({{"e", folder()}});
  EXPECT_EQ(state_.item(d).there()->place, top("e"));
  ASSERT_EQ(state_.journal().intents().size(), 3U);
  for (const auto& [number, intent] : state_.journal().intents()) {
    EXPECT_EQ(intent.isUnderWay(), number == sent);
  }
}

TEST_F(ObservingTest, WillMakeAnewWhatOurOwnLateRemovalTook) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber e = state_.folder({d, "e"});
  const ItemNumber f = state_.file({d, "f"});
  state_.sent(Verb::remove, d, "d", "");
  lookAtRoot({});
  for (const ItemNumber item : {d, e, f}) EXPECT_FALSE(state_.item(item).agreed());
}

TEST_F(ObservingTest, LooksForARequestOnlyWhenItBeganAfterItsEnd) {
  const ItemNumber a = state_.fileHere(top("a"));
  Request request{Verb::put, a, std::nullopt, Path().child("a"), kOurs};
  IntentNumber number;
  {
    Edit edit(state_.tree());
    number = noteSent(edit, request, kStart);
    edit.commit();
  }
  const auto intent = [&] { return state_.journal().intents().at(number); };
  lookAtRoot({}, kStart);
  EXPECT_FALSE(intent().looked) << "it is still under way";
  EXPECT_EQ(state_.plan(a), Step(WaitForAnswer{number}));
  {
    Edit edit(state_.tree());
    noteLostAnswer(edit, number, kStart + std::chrono::seconds(60));
    edit.commit();
  }
  lookAtRoot({}, kStart + std::chrono::seconds(59));
  EXPECT_FALSE(intent().looked);
  lookAtRoot({}, kStart + std::chrono::seconds(60));
  EXPECT_TRUE(intent().looked);
  EXPECT_FALSE(intent().over);
  lookAtRoot({}, kStart + std::chrono::seconds(60) + kLandingTime);
  EXPECT_TRUE(intent().over);
}

}  // namespace
}  // namespace kestrowan::test
