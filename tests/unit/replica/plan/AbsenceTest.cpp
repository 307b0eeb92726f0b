#include "replica/plan/Absence.h"

#include "unit/replica/plan/ObservingFixture.h"

namespace kestrowan::test {
namespace {

/// What listings lack.
class AbsenceTest : public ObservingFixture {
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

}  // namespace
}  // namespace kestrowan::test
