#include "replica/plan/Observing.h"

#include <gtest/gtest.h>

#include "replica/model/View.h"
#include "replica/plan/Landing.h"
#include "replica/plan/Requests.h"
#include "unit/replica/plan/StateBuilder.h"

namespace kestrowan::test {
namespace {

constexpr Time kStart{};

class ObservingTest : public testing::Test {
 protected:
  static Place top(const std::string& name) { return StateBuilder::top(name); }
  static ListedEntry file(const Version& version = kVersion1) { return {Kind::file, version}; }
  static ListedEntry folder() { return {Kind::folder, {}}; }

  /// One look; gives what became of it.
  Written lookOnce(Listings listings, Time began,
                   const std::vector<ItemNumber>& folders = {ItemNumber::root}) {
    Edit edit(state_.tree());
    Written written = observe(edit, folders, Shown{std::move(listings), began, {}}, doubts_);
    if (!written.lacking.empty()) return written;
    edit.commit();
    doubts_ = written.doubts;
    return written;
  }
  /// Two looks that agree, the second begins then; gives what is lacking.
  std::vector<Path> look(Listings listings, Time began = kStart,
                         const std::vector<ItemNumber>& folders = {ItemNumber::root}) {
    lookOnce(listings, began - kSuspicionTime, folders);
    return lookOnce(std::move(listings), began, folders).lacking;
  }
  std::vector<Path> lookAtRoot(Listing listing, Time began = kStart) {
    return look({{Path(), std::move(listing)}}, began);
  }
  const Item* thereAt(const Place& place) { return View(state_.tree())->thereAt(place); }

  StateBuilder state_;
  Doubts doubts_;
};

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

/// What listings lack.
class AbsenceTest : public ObservingTest {
 protected:
  Written lookAt(const Listing& listing, std::chrono::milliseconds time) {
    return lookOnce({{Path(), listing}}, kStart + time);
  }
  bool isThere(ItemNumber item) { return state_.item(item).there().has_value(); }
};

TEST_F(AbsenceTest, OfWhatIsDownloadedIsBelievedWhenASecondListingAgrees) {
  const ItemNumber a = state_.file(top("a"));
  EXPECT_EQ(lookAt({}, {}).doubts.next(), kStart + kSecondLook);
  EXPECT_TRUE(isThere(a));
  lookAt({}, kSecondLook - std::chrono::milliseconds(1));
  EXPECT_TRUE(isThere(a));
  EXPECT_EQ(lookAt({}, kSecondLook).doubts.next(), std::nullopt);
  EXPECT_FALSE(isThere(a));
}

TEST_F(AbsenceTest, IsDoubtedAnewAfterAListingShowedTheItem) {
  const ItemNumber a = state_.file(top("a"));
  lookAt({}, {});
  lookAt({{"a", file()}}, std::chrono::seconds(1));
  lookAt({}, kSecondLook);
  EXPECT_TRUE(isThere(a));
}

TEST_F(AbsenceTest, IsBelievedAtOnceWhereNothingIsLost) {
  const ItemNumber notDownloaded = state_.file(top("a"), kNone);
  const ItemNumber removed = state_.file(top("b"));
  state_.remove(removed);
  const ItemNumber changed = state_.file(top("c"));
  state_.write(changed);
  const ItemNumber unmerged = state_.fileThere(top("e"), kTheirs);
  state_.here(unmerged, top("e"), kOurs);
  const ItemNumber d = state_.folder(top("d"));
  state_.file({d, "f"}, kNone);
  state_.file(top("kept"));
  lookAt({{"kept", file()}}, {});
  for (const ItemNumber item : {notDownloaded, removed, changed, unmerged, d}) {
    EXPECT_FALSE(isThere(item));
  }
}

TEST_F(AbsenceTest, OfAFolderThatHoldsDownloadedFilesIsDoubted) {
  const ItemNumber d = state_.folder(top("d"));
  state_.file({state_.folder({d, "e"}), "f"});
  lookAt({}, {});
  EXPECT_TRUE(isThere(d));
  lookAt({}, kSecondLook);
  EXPECT_FALSE(isThere(d));
}

TEST_F(AbsenceTest, IsDoubtedTooWhenSomethingOfAnotherKindIsShown) {
  const ItemNumber a = state_.file(top("a"));
  lookAt({{"a", folder()}}, {});
  EXPECT_EQ(thereAt(top("a"))->number(), a);
  EXPECT_EQ(state_.item(a).there()->version, kVersion1);
  lookAt({{"a", folder()}}, kSecondLook);
  EXPECT_FALSE(isThere(a));
  EXPECT_TRUE(thereAt(top("a"))->isFolder());
}

TEST_F(AbsenceTest, IsNotProvedByAListingThatDidNotComeWhole) {
  const ItemNumber a = state_.file(top("a"), kNone);
  const ItemNumber removed = state_.file(top("b"));
  state_.remove(removed);
  Listing part{{"c", file()}};
  part.isWhole = false;
  for (const int time : {0, 10}) {
    EXPECT_EQ(lookAt(part, std::chrono::seconds(time)).unproved, std::vector{ItemNumber::root});
    EXPECT_TRUE(isThere(a));
    EXPECT_TRUE(isThere(removed));
  }
  EXPECT_TRUE(thereAt(top("c"))) << "what it shows is there";
  EXPECT_TRUE(lookAt({{"a", file()}, {"c", file()}}, kSecondLook).unproved.empty());
}

TEST_F(AbsenceTest, OfAllOfThreeIsDoubtedAlthoughNothingIsLost) {
  std::vector<ItemNumber> items;
  for (const char* name : {"a", "b", "c"}) items.push_back(state_.file(top(name), kNone));
  EXPECT_EQ(lookAt({}, {}).unproved, std::vector{ItemNumber::root});
  EXPECT_EQ(lookAt({}, kSuspicionTime - std::chrono::milliseconds(1)).doubts.next(),
            kStart + kSuspicionTime);
  EXPECT_TRUE(isThere(items[0]));
  EXPECT_TRUE(lookAt({}, kSuspicionTime).unproved.empty());
  EXPECT_FALSE(isThere(items[0]));
}

TEST_F(AbsenceTest, OfMoreThanHalfOfTenIsDoubtedUntilASecondListingIsTheSame) {
  std::vector<ItemNumber> items;
  for (unsigned i = 0; i < 10; ++i) {
    items.push_back(state_.file(top("f" + std::to_string(i)), kNone));
  }
  Listing listing{{"f0", file()}, {"f1", file()}, {"f2", file()}, {"f3", file()}};
  lookAt(listing, {});
  EXPECT_TRUE(isThere(items[9]));
  listing.entries.at("f3") = file(Version{});
  lookAt(listing, kSuspicionTime);
  EXPECT_TRUE(isThere(items[9])) << "another version";
  listing.entries.at("f3") = folder();
  lookAt(listing, kSuspicionTime * 2);
  EXPECT_TRUE(isThere(items[9])) << "another kind";
  lookAt(listing, kSuspicionTime * 3);
  EXPECT_FALSE(isThere(items[9]));
}

TEST_F(AbsenceTest, OfHalfOfTenIsNoMatterOfSuspicion) {
  std::vector<ItemNumber> items;
  for (unsigned i = 0; i < 10; ++i) {
    items.push_back(state_.file(top("f" + std::to_string(i)), kNone));
  }
  lookAt({{"f0", file()}, {"f1", file()}, {"f2", file()}, {"f3", file()}, {"f4", file()}}, {});
  EXPECT_FALSE(isThere(items[9]));
}

TEST_F(AbsenceTest, IsSuspectedAnewAfterAListingThatLostLittle) {
  std::vector<ItemNumber> items;
  Listing all;
  for (const char* name : {"a", "b", "c"}) {
    items.push_back(state_.file(top(name), kNone));
    all.entries.emplace(name, file());
  }
  lookAt({}, {});
  lookAt(all, kSuspicionTime);
  lookAt({}, kSuspicionTime * 2);
  EXPECT_TRUE(isThere(items[0]));
}

TEST_F(AbsenceTest, OfWhatBecameAnotherKindIsNoReasonForSuspicion) {
  Listing folders;
  for (unsigned i = 0; i < 10; ++i) {
    const std::string name = "f" + std::to_string(i);
    state_.file(top(name), kNone);
    folders.entries.emplace(name, folder());
  }
  EXPECT_TRUE(lookAt(folders, {}).unproved.empty());
  EXPECT_TRUE(thereAt(top("f0"))->isFolder());
}

TEST_F(AbsenceTest, OfWhatWasRemovedHereIsNoReasonForSuspicion) {
  for (const char* name : {"a", "b", "c"}) state_.remove(state_.file(top(name)));
  EXPECT_TRUE(lookAt({}, {}).unproved.empty());
  EXPECT_EQ(thereAt(top("a")), nullptr);
}

TEST_F(AbsenceTest, IsKnownWhereOurOwnRemovalTookIt) {
  const ItemNumber a = state_.file(top("a"));
  state_.sent(Verb::remove, a, "a", "");
  Listing part;
  part.isWhole = false;
  lookAt(part, {});
  EXPECT_TRUE(isThere(a));
  lookAt({}, {});
  EXPECT_FALSE(isThere(a));
  EXPECT_FALSE(state_.item(a).agreed());
}

class AnswerTest : public ObservingTest {
 protected:
  IntentNumber send(Verb verb, ItemNumber item, const char* source, const char* target,
                    Content content = kNone) {
    Request request{verb, item, std::nullopt, std::nullopt, content};
    if (*source) request.source = Path().child(source);
    if (*target) request.target = Path().child(target);
    Edit edit(state_.tree());
    const IntentNumber number = noteSent(edit, request, kStart);
    edit.commit();
    return number;
  }
  void answer(IntentNumber number, const Version& version = {}) {
    Edit edit(state_.tree());
    noteAnswer(edit, number, version, kStart);
    edit.commit();
  }
};

TEST_F(AnswerTest, OfAPutAgreesAndLeavesWhatWasWrittenMeanwhileToBeSent) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  state_.write(a, kFromBefore);
  answer(number, kVersion1);
  EXPECT_EQ(state_.item(a).agreed(), (There{top("a"), kVersion1, kOurs}));
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top("a"), kFromBefore}));
  EXPECT_TRUE(state_.journal().intents().empty());
}

TEST_F(AnswerTest, OfAPutOverWhatIsKnownThereAgreesToo) {
  const ItemNumber a = state_.file(top("a"));
  state_.write(a);
  answer(send(Verb::put, a, "", "a", kOurs), kVersion2);
  EXPECT_EQ(state_.item(a).agreed(), (There{top("a"), kVersion2, kOurs}));
  EXPECT_TRUE(state_.item(a).isInStep());
}

TEST_F(AnswerTest, OfACreationForAnItemThatIsNoMoreIsRemovedThere) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  state_.remove(a);
  {
    Edit edit(state_.tree());
    edit.drop(a);
    edit.commit();
  }
  answer(number, kVersion1);
  const Item* made = thereAt(top("a"));
  ASSERT_TRUE(made);
  EXPECT_EQ(state_.plan(made->number()),
            Step(Push{Change::remove, made->number(), top("a"), kNone}));
}

TEST_F(AnswerTest, OfAMoveMovesBothStates) {
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top("b"));
  answer(send(Verb::move, a, "a", "b"));
  EXPECT_TRUE(state_.item(a).isInStep());
  EXPECT_EQ(state_.item(a).agreed()->place, top("b"));
}

TEST_F(AnswerTest, OfAMoveOfAFolderIsOneForTheRequestsBelowIt) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.fileHere({d, "f"});
  state_.sent(Verb::put, f, "", "d/f", kOurs);
  const auto targets = [&] {
    std::vector<std::string> result;
    for (const auto& [number, intent] : state_.journal().intents()) {
      result.push_back(intent.target->text());
    }
    return result;
  };
  answer(send(Verb::move, d, "d", "e"));
  EXPECT_EQ(targets(), (std::vector<std::string>{"d/f", "e/f"}));
  answer(send(Verb::move, d, "e", "d"));
  EXPECT_EQ(targets(), (std::vector<std::string>{"d/f", "e/f"})) << "once each";
}

TEST_F(AnswerTest, OfARemovalLeavesNothingThere) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(a);
  answer(send(Verb::remove, a, "a", ""));
  EXPECT_FALSE(state_.item(a).there());
  EXPECT_FALSE(state_.item(a).agreed());
}

TEST_F(AnswerTest, OfARemovalCountsAsLostWhenAnEarlierMoveMayHaveLandedBefore) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(a);
  state_.sent(Verb::move, a, "a", "b");
  const IntentNumber number = send(Verb::remove, a, "a", "");
  answer(number);
  EXPECT_FALSE(state_.journal().intents().at(number).isUnderWay());
  EXPECT_TRUE(state_.item(a).there());
}

TEST_F(AnswerTest, ThatCanNoLongerBePlacedCountsAsLost) {
  const ItemNumber a = state_.fileHere(top("b"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  state_.fileThere(top("a"));
  answer(number, kVersion2);
  EXPECT_FALSE(state_.journal().intents().at(number).isUnderWay());
  EXPECT_FALSE(state_.item(a).there());
}

TEST_F(AnswerTest, OfARefusalLeavesEverythingAsItWas) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  {
    Edit edit(state_.tree());
    noteRefusal(edit, number);
    edit.commit();
  }
  EXPECT_EQ(state_.plan(a), Step(Push{Change::create, a, top("a"), kOurs}));
}

TEST_F(AnswerTest, ThatNeverComesOfARequestThatMetNoServerNeedsOneLook) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  {
    Edit edit(state_.tree());
    noteLostAnswer(edit, number, kStart);
    replica::plan::noteNotOnItsWay(edit, number);
    edit.commit();
  }
  lookAtRoot({}, kStart);
  EXPECT_TRUE(state_.journal().intents().at(number).over);
}

TEST_F(AnswerTest, OfAFetchIsNoChangeOfAFileThatWasDownloaded) {
  const ItemNumber a = state_.file(top("a"));
  Edit edit(state_.tree());
  noteFetched(edit, a, kVersion1, kTheirs);
  edit.commit();
  EXPECT_EQ(edit->item(a).here()->content, kOld);
  EXPECT_TRUE(edit->item(a).isInStep());
}

TEST_F(AnswerTest, OfAFetchLeavesWhatWasWrittenHere) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.write(a);
  Edit edit(state_.tree());
  noteFetched(edit, a, kVersion1, kTheirs);
  edit.commit();
  EXPECT_EQ(edit->item(a).here()->content, kOurs);
  EXPECT_EQ(edit->item(a).agreed()->content, kTheirs);
}

TEST_F(AnswerTest, OfAFetchIsTheContentsOfAFileThatWasNotDownloaded) {
  const ItemNumber a = state_.file(top("a"), kNone);
  Edit edit(state_.tree());
  noteFetched(edit, a, kVersion2, kTheirs);
  EXPECT_EQ(edit->item(a).here()->content, kNone) << "another version";
  noteFetched(edit, a, kVersion1, kTheirs);
  edit.commit();
  EXPECT_EQ(edit->item(a).here()->content, kTheirs);
  EXPECT_TRUE(edit->item(a).isInStep());
}

}  // namespace
}  // namespace kestrowan::test
