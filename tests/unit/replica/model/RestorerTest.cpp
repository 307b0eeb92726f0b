#include "replica/model/Restorer.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "support/MemoryJournal.h"

namespace kestrowan::replica::model {
namespace {

constexpr ItemNumber kFolder{2};
constexpr ItemNumber kFile{3};
constexpr ItemNumber kOther{4};
constexpr ItemNumber kInner{5};
constexpr Content kContent{9};

bool isAnything(const State&, const Item&) {
  return true;
}

class RestorerTest : public testing::Test {
 protected:
  /// In step, in this folder.
  static KeptItem kept(ItemNumber number, Kind kind, ItemNumber folder, const std::string& name) {
    KeptItem item{number, kind, Here{{folder, name}, Content::none}, {}, {}, {}, {}};
    item.there = There{{folder, name}, {kind == Kind::file ? "1" : ""}, Content::none};
    item.agreed = item.there;
    return item;
  }

  /// The numbers of the items that are left, besides the root's.
  std::set<ItemNumber> finish(const Restorer::IsProper& isProper = isAnything) {
    Tree tree(journal_, restorer_.finish(isProper));
    const View view(tree);
    std::set<ItemNumber> numbers;
    for (std::uint64_t i = 2; i < 20; ++i) {
      if (view->find(ItemNumber{i})) numbers.insert(ItemNumber{i});
    }
    EXPECT_EQ(view->count(), numbers.size() + 1);
    return numbers;
  }

  test::MemoryJournal journal_;
  Restorer restorer_;
};

TEST_F(RestorerTest, RestoresWhatWasKept) {
  KeptItem file = kept(kFile, Kind::file, kFolder, "f");
  file.here = Here{{ItemNumber::root, "moved"}, kContent};
  file.after = {kOther, kFolder, kOther};
  file.attributes.mode = 0600;
  restorer_.add(file);
  restorer_.add(kept(kFolder, Kind::folder, ItemNumber::root, "d"));
  Intent intent;
  intent.number = IntentNumber{7};
  intent.target = Path().child("d");
  restorer_.add(intent);
  restorer_.setNext(ItemNumber{100}, IntentNumber{50});
  Tree tree(journal_, restorer_.finish(isAnything));
  EXPECT_EQ(restorer_.leftOut().size(), 0U);
  Edit edit(tree);
  const Item& item = edit->item(kFile);
  EXPECT_EQ(item.here(), file.here);
  EXPECT_EQ(item.there(), file.there);
  EXPECT_TRUE(item.agreed().isSameAs(item.there()));
  EXPECT_EQ(item.after(), (std::vector{kFolder, kOther}));
  EXPECT_EQ(item.attributes(), file.attributes);
  EXPECT_EQ(edit->hereAt({ItemNumber::root, "moved"}), &item);
  EXPECT_EQ(edit->thereAt({kFolder, "f"}), &item);
  EXPECT_EQ(edit->pending(), std::set{kFile});
  EXPECT_EQ(edit->following(), std::set{kFile});
  EXPECT_EQ(edit->intents().all().size(), 1U);
  EXPECT_EQ(edit.make(Kind::file), ItemNumber{100});
  EXPECT_EQ(edit.add({}), IntentNumber{50});
}

TEST_F(RestorerTest, GivesNoNumberThatAnItemOrAnIntentBears) {
  restorer_.add(kept(ItemNumber{40}, Kind::file, ItemNumber::root, "f"));
  Intent intent;
  intent.number = IntentNumber{7};
  restorer_.add(intent);
  Tree tree(journal_, restorer_.finish(isAnything));
  Edit edit(tree);
  EXPECT_EQ(edit.make(Kind::file), ItemNumber{41});
  EXPECT_EQ(edit.add({}), IntentNumber{8});
}

TEST_F(RestorerTest, LeavesOutNumbersThatAreTakenOrNone) {
  restorer_.add(kept(kFile, Kind::file, ItemNumber::root, "f"));
  restorer_.add(kept(kFile, Kind::file, ItemNumber::root, "g"));
  restorer_.add(kept(ItemNumber::none, Kind::file, ItemNumber::root, "h"));
  EXPECT_EQ(finish(), std::set{kFile});
  EXPECT_EQ(restorer_.leftOut().size(), 2U);
}

TEST_F(RestorerTest, KeepsTheRootsAttributesAndLeavesOutOneThatIsNone) {
  KeptItem root{ItemNumber::root, Kind::folder, Here{}, There{}, There{}, {}, {}};
  root.attributes.listedAt = Time(std::chrono::milliseconds(5));
  Restorer good;
  good.add(root);
  const State state = good.finish(isAnything);
  EXPECT_EQ(good.leftOut().size(), 0U);
  EXPECT_EQ(state.root().attributes(), root.attributes);
  restorer_.add(kept(ItemNumber::root, Kind::folder, kFolder, "root"));
  EXPECT_EQ(finish(), std::set<ItemNumber>{});
  EXPECT_EQ(restorer_.leftOut().size(), 1U);
}

TEST_F(RestorerTest, LeavesOutWhatIsInNoFolder) {
  restorer_.add(kept(kFile, Kind::file, ItemNumber{77}, "f"));
  restorer_.add(kept(kOther, Kind::file, ItemNumber::root, "g"));
  restorer_.add(kept(kInner, Kind::file, kOther, "in a file"));
  EXPECT_EQ(finish(), std::set{kOther});
  EXPECT_EQ(restorer_.leftOut().size(), 2U);
}

TEST_F(RestorerTest, LeavesOutWhatIsInNoFolderOnOneSideAlone) {
  restorer_.add(kept(kFolder, Kind::folder, ItemNumber::root, "d"));
  KeptItem here = kept(kFile, Kind::file, kFolder, "f");
  here.here = Here{{ItemNumber{77}, "f"}, kContent};
  restorer_.add(here);
  KeptItem there = kept(kOther, Kind::file, kFolder, "g");
  there.there = There{{ItemNumber{77}, "g"}, {"1"}, Content::none};
  restorer_.add(there);
  EXPECT_EQ(finish(), std::set{kFolder});
}

TEST_F(RestorerTest, LeavesOutFoldersThatAreInThemselves) {
  restorer_.add(kept(kFolder, Kind::folder, kInner, "d"));
  restorer_.add(kept(kInner, Kind::folder, kFolder, "e"));
  restorer_.add(kept(kFile, Kind::file, kInner, "f"));
  restorer_.add(kept(kOther, Kind::folder, kOther, "g"));
  EXPECT_EQ(finish(), std::set<ItemNumber>{});
  EXPECT_EQ(restorer_.leftOut().size(), 4U);
}

TEST_F(RestorerTest, LeavesOutWhatIsNotProperWithAllThatIsInIt) {
  restorer_.add(kept(kFolder, Kind::folder, ItemNumber::root, "d"));
  restorer_.add(kept(kFile, Kind::file, kFolder, "f"));
  restorer_.add(kept(kOther, Kind::file, ItemNumber::root, "g"));
  const auto isProper = [](const State&, const Item& item) { return item.number() != kFolder; };
  EXPECT_EQ(finish(isProper), std::set{kOther});
  EXPECT_EQ(restorer_.leftOut().size(), 2U);
}

TEST_F(RestorerTest, KeepsOfTwoItemsInOnePlaceTheOneThatIsToBeSent) {
  for (const ItemNumber changed : {kFile, kOther}) {
    Restorer restorer;
    for (const ItemNumber number : {kFile, kOther}) {
      KeptItem item = kept(number, Kind::file, ItemNumber::root, "f");
      if (number == changed) item.here = Here{{ItemNumber::root, "f"}, kContent};
      restorer.add(item);
    }
    const State state = restorer.finish(isAnything);
    EXPECT_EQ(restorer.leftOut().size(), 1U);
    EXPECT_NE(state.find(changed), nullptr);
    EXPECT_EQ(state.count(), 2U);
    EXPECT_EQ(state.hereAt(ItemNumber::root, "f"), state.find(changed));
  }
}

TEST_F(RestorerTest, DoubtsListingsWhenSomethingWasLeftOut) {
  KeptItem folder = kept(kFolder, Kind::folder, ItemNumber::root, "d");
  folder.attributes.listedAt = Time(std::chrono::milliseconds(500));
  restorer_.add(folder);
  restorer_.add(kept(kInner, Kind::folder, ItemNumber::root, "never listed"));
  restorer_.add(kept(kFile, Kind::file, ItemNumber{77}, "f"));
  const State state = restorer_.finish(isAnything);
  EXPECT_EQ(state.item(kFolder).attributes().listedAt, OptionalTime<Time>(Time()));
  EXPECT_FALSE(state.item(kInner).attributes().listedAt);
}

TEST_F(RestorerTest, LeavesOutWhatIsInAFolderWhosePlaceIsTaken) {
  restorer_.add(kept(kFolder, Kind::folder, ItemNumber::root, "d"));
  restorer_.add(kept(kOther, Kind::folder, ItemNumber::root, "d"));
  restorer_.add(kept(kFile, Kind::file, kOther, "f"));
  restorer_.add(kept(kInner, Kind::file, kFolder, "f"));
  EXPECT_EQ(finish(), (std::set{kFolder, kInner}));
  EXPECT_EQ(restorer_.leftOut().size(), 2U);
}

}  // namespace
}  // namespace kestrowan::replica::model
