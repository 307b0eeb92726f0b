#include "replica/model/Edit.h"

#include <gtest/gtest.h>

#include <thread>

#include "replica/model/View.h"
#include "support/MemoryJournal.h"

namespace kestrowan::replica::model {
namespace {

constexpr Content kOld{1};
constexpr Content kNew{2};

Place inRoot(std::string name) {
  return {ItemNumber::root, std::move(name)};
}

class EditTest : public testing::Test {
 protected:
  /// A file in step, with the contents `kOld`.
  ItemNumber file(const std::string& name) {
    Edit edit(tree_);
    const ItemNumber number = edit.make(Kind::file);
    const There there{inRoot(name), {"1"}, kOld};
    edit.setHere(number, Here{inRoot(name), kOld});
    edit.setThere(number, there);
    edit.setAgreed(number, there);
    edit.commit();
    return number;
  }

  void write(ItemNumber number) {
    Edit edit(tree_);
    const Place place = edit->item(number).here()->place;
    edit.setHere(number, Here{place, kNew});
    edit.commit();
  }

  test::MemoryJournal journal_;
  Tree tree_{journal_};
};

TEST_F(EditTest, IsSeenAndWrittenWhenItIsCommitted) {
  const ItemNumber number = file("a");
  const View view(tree_);
  ASSERT_NE(view->hereAt(inRoot("a")), nullptr);
  EXPECT_EQ(view->hereAt(inRoot("a"))->number(), number);
  EXPECT_EQ(view->thereAt(inRoot("a"))->number(), number);
  EXPECT_EQ(journal_.items().at(number).here(), view->item(number).here());
}

TEST_F(EditTest, LeavesEverythingAsItWasUnlessItIsCommitted) {
  const ItemNumber kept = file("a");
  const ItemNumber other = file("b");
  {
    Edit edit(tree_);
    edit.setHere(kept, std::nullopt);
    edit.setHere(other, Here{inRoot("a"), kNew});
    edit.setThere(kept, std::nullopt);
    edit.addAfter(other, kept);
    edit.setHere(edit.make(Kind::folder), Here{inRoot("b"), Content::none});
    edit.drop(kept);
    edit.add({});
  }
  const View view(tree_);
  EXPECT_EQ(view->hereAt(inRoot("a")), view->find(kept));
  EXPECT_EQ(view->hereAt(inRoot("b")), view->find(other));
  EXPECT_EQ(view->thereAt(inRoot("a")), view->find(kept));
  EXPECT_EQ(view->item(other).here()->content, kOld);
  EXPECT_EQ(view->count(), 3U);
  EXPECT_TRUE(view->pending().empty());
  EXPECT_TRUE(view->unmerged().empty());
  EXPECT_TRUE(view->following().empty());
  EXPECT_TRUE(view->intents().all().empty());
  EXPECT_EQ(journal_.writes(), 2U);
}

TEST_F(EditTest, LeavesEverythingAsItWasWhenTheJournalRefuses) {
  const ItemNumber number = file("a");
  journal_.failOnce(posixError(ENOSPC));
  const auto change = [&] {
    Edit edit(tree_);
    edit.setHere(number, Here{inRoot("b"), kNew});
    edit.commit();
  };
  EXPECT_THROW(change(), NSError);
  {
    const View view(tree_);
    EXPECT_EQ(view->hereAt(inRoot("a")), view->find(number));
    EXPECT_EQ(view->hereAt(inRoot("b")), nullptr);
    EXPECT_EQ(view->item(number).here()->content, kOld);
  }
  change();
  const View view(tree_);
  EXPECT_EQ(view->hereAt(inRoot("b")), view->find(number));
}

TEST_F(EditTest, GivesNoNumberTwiceAndTakesBackThoseOfAnEditThatFailed) {
  const ItemNumber first = file("a");
  {
    Edit edit(tree_);
    edit.make(Kind::file);
    edit.add({});
  }
  const ItemNumber second = file("b");
  EXPECT_EQ(static_cast<std::uint64_t>(second), static_cast<std::uint64_t>(first) + 1);
  {
    Edit edit(tree_);
    EXPECT_EQ(edit.add({}), IntentNumber{1});
    EXPECT_EQ(edit.add({}), IntentNumber{2});
    edit.drop(second);
    edit.commit();
  }
  EXPECT_NE(file("b"), second);
}

TEST_F(EditTest, PutsTwoItemsInEachOthersPlaces) {
  const ItemNumber a = file("a");
  const ItemNumber b = file("b");
  Edit edit(tree_);
  edit.setHere(a, std::nullopt);
  edit.setHere(b, Here{inRoot("a"), kOld});
  edit.setHere(a, Here{inRoot("b"), kOld});
  edit.commit();
  EXPECT_EQ(edit->hereAt(inRoot("a"))->number(), b);
  EXPECT_EQ(edit->hereAt(inRoot("b"))->number(), a);
}

TEST_F(EditTest, GivesTheHistoryWhatLeavesItsItem) {
  const ItemNumber written = file("a");
  write(written);
  ASSERT_EQ(journal_.history().size(), 1U);
  const Left& left = journal_.history()[0];
  EXPECT_EQ(left.item, written);
  EXPECT_EQ(left.here, (Here{inRoot("a"), kOld}));
  EXPECT_EQ(left.path, Path().child("a"));
  EXPECT_EQ(left.confirmed->version, Version{"1"});

  Edit edit(tree_);
  edit.setHere(written, Here{inRoot("b"), kNew});
  edit.commit();
  EXPECT_EQ(journal_.history().size(), 1U) << "a file that moves keeps its contents";
}

TEST_F(EditTest, KeepsOutOfTheHistoryWhatIsOnlyEvicted) {
  const ItemNumber number = file("a");
  {
    Edit edit(tree_);
    edit.setHere(number, Here{inRoot("a"), Content::none});
    edit.setThere(number, There{inRoot("a"), {"1"}, Content::none});
    edit.setAgreed(number, There{inRoot("a"), {"1"}, Content::none});
    edit.commit();
  }
  EXPECT_TRUE(journal_.history().empty());
  const ItemNumber other = file("b");
  Edit edit(tree_);
  edit.setHere(other, Here{inRoot("b"), Content::none});
  edit.setThere(other, There{inRoot("b"), {"2"}, Content::none});
  edit.setAgreed(other, There{inRoot("b"), {"2"}, Content::none});
  edit.commit();
  EXPECT_EQ(journal_.history().size(), 1U);
}

TEST_F(EditTest, KeepsContentsThatGoToAnotherItemOutOfTheHistory) {
  const ItemNumber number = file("a");
  Edit edit(tree_);
  const ItemNumber beside = edit.make(Kind::file);
  edit.setHere(number, Here{inRoot("a"), kNew});
  edit.setHere(beside, Here{inRoot("a beside"), kOld});
  edit.commit();
  EXPECT_TRUE(journal_.history().empty());
}

TEST_F(EditTest, TellsTheJournalWhichIntentsCameChangedAndWent) {
  Intent intent;
  intent.item = ItemNumber::root;
  {
    Edit edit(tree_);
    intent.number = edit.add(intent);
    edit.add({});
    edit.commit();
  }
  EXPECT_EQ(journal_.intents().size(), 2U);
  Edit edit(tree_);
  intent.looked = true;
  edit.change(intent);
  edit.end(IntentNumber{2});
  edit.commit();
  ASSERT_EQ(journal_.intents().size(), 1U);
  EXPECT_TRUE(journal_.intents().at(intent.number).looked);
}

TEST_F(EditTest, KnowsWhatIsToBeMergedAndWhatIsToBeSent) {
  const ItemNumber number = file("a");
  {
    const View view(tree_);
    EXPECT_TRUE(view->pending().empty());
  }
  write(number);
  {
    const View view(tree_);
    EXPECT_TRUE(view->unmerged().empty());
    EXPECT_TRUE(view->pending().contains(number));
  }
  Edit edit(tree_);
  edit.setThere(number, There{inRoot("a"), {"2"}, Content::none});
  edit.commit();
  EXPECT_TRUE(edit->unmerged().contains(number));
}

TEST_F(EditTest, ListsAFolderByNamesAndNothingElse) {
  const ItemNumber b = file("b");
  const ItemNumber a = file("a");
  Edit edit(tree_);
  const ItemNumber folder = edit.make(Kind::folder);
  edit.setHere(folder, Here{inRoot("c"), Content::none});
  const ItemNumber inside = edit.make(Kind::file);
  edit.setHere(inside, Here{{folder, "x"}, kNew});
  edit.commit();
  std::vector<ItemNumber> found;
  for (const Item* item : edit->hereIn(ItemNumber::root)) found.push_back(item->number());
  EXPECT_EQ(found, (std::vector{a, b, folder}));
  EXPECT_EQ(edit->anyHereIn(folder)->number(), inside);
  EXPECT_EQ(edit->anyThereIn(folder), nullptr);
}

TEST_F(EditTest, FindsWhatTheProviderHasByItsPath) {
  Edit edit(tree_);
  const ItemNumber folder = edit.make(Kind::folder);
  const ItemNumber inside = edit.make(Kind::file);
  edit.setThere(folder, There{inRoot("d"), {}, Content::none});
  edit.setThere(inside, There{{folder, "f"}, {"1"}, Content::none});
  edit.commit();
  const Path path = Path().child("d").child("f");
  EXPECT_EQ(edit->therePath(edit->item(inside)), path);
  EXPECT_EQ(edit->atPath(path)->number(), inside);
  EXPECT_EQ(edit->atPath(path.child("g")), nullptr);
  EXPECT_EQ(edit->pathOf({inside, "g"}), path.child("g"));
  EXPECT_EQ(edit->pathOf({ItemNumber{99}, "g"}), std::nullopt);
}

TEST_F(EditTest, KnowsAnItemByItsPlaceUnlessTheProviderGivesItAnotherIdentifier) {
  Edit edit(tree_);
  const ItemNumber folder = edit.make(Kind::folder);
  const ItemNumber inside = edit.make(Kind::file);
  edit.setThere(folder, There{inRoot("d"), {}, Content::none});
  edit.setThere(inside, There{{folder, "f"}, {"1"}, Content::none});
  EXPECT_EQ(edit->identifier(edit->root()), NSFileProviderRootContainerItemIdentifier);
  EXPECT_EQ(edit->identifier(edit->item(folder)), "/d");
  EXPECT_EQ(edit->identifier(edit->item(inside)), "/d/f");
  There there{inRoot("d"), {}, Content::none};
  there.identifier = "id-7";
  edit.setThere(folder, there);
  EXPECT_EQ(edit->identifier(edit->item(folder)), "id-7");
  EXPECT_EQ(edit->identifier(edit->item(inside)), "id-7/f");
  edit.commit();
}

TEST_F(EditTest, KeepsWhatIsKnownOfAnItemHereAlone) {
  const ItemNumber number = file("a");
  EXPECT_EQ(journal_.items().at(number).attributes(), Attributes{});
  Attributes attributes;
  attributes.mode = 0600;
  attributes.user = UserAttributes{{"user.colour", "blue"}};
  attributes.modified = FileTime(std::chrono::nanoseconds(1));
  {
    Edit edit(tree_);
    edit.setAttributes(number, attributes);
    EXPECT_EQ(edit->item(number).attributes(), attributes);
  }
  EXPECT_EQ(View(tree_)->item(number).attributes(), Attributes{});
  {
    Edit edit(tree_);
    edit.setAttributes(number, attributes);
    edit.commit();
  }
  EXPECT_EQ(journal_.items().at(number).attributes(), attributes);
  EXPECT_TRUE(View(tree_)->item(number).isInStep());
}

TEST_F(EditTest, HasNothingToDoAboutAnItemThatStaysHere) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::file);
  edit.setHere(number, Here{inRoot("a.part"), kNew});
  EXPECT_TRUE(edit->pending().contains(number));
  Attributes attributes;
  attributes.localOnly = true;
  edit.setAttributes(number, attributes);
  EXPECT_FALSE(edit->pending().contains(number));
  attributes.localOnly = false;
  edit.setAttributes(number, attributes);
  EXPECT_TRUE(edit->pending().contains(number));
}

TEST_F(EditTest, HasOneWriterOrManyReaders) {
  const ItemNumber number = file("a");
  std::thread reader([&] {
    for (int i = 0; i < 1000; ++i) {
      const View view(tree_);
      const Item& item = view->item(number);
      EXPECT_EQ(item.here()->content == kNew, item.agreed()->content == kNew);
    }
  });
  for (int i = 0; i < 1000; ++i) {
    Edit edit(tree_);
    const Content content = i % 2 == 0 ? kNew : kOld;
    edit.setHere(number, Here{inRoot("a"), content});
    edit.setAgreed(number, There{inRoot("a"), {"1"}, content});
    edit.commit();
  }
  reader.join();
}

using EditDeathTest = EditTest;

TEST_F(EditDeathTest, EndsWhenAnItemIsPutWhereAnotherOneIs) {
  file("a");
  const ItemNumber b = file("b");
  Edit edit(tree_);
  EXPECT_DEATH(edit.setHere(b, Here{inRoot("a"), kOld}), "where another one is");
  EXPECT_DEATH(edit.setThere(b, There{inRoot("a"), {"1"}, kOld}), "where another one is");
}

TEST_F(EditDeathTest, EndsWhenAnItemWouldBeInAFolderThatIsNotThere) {
  const ItemNumber a = file("a");
  const ItemNumber b = file("b");
  Edit edit(tree_);
  edit.setHere(b, Here{{a, "b"}, kOld});
  EXPECT_DEATH(edit.commit(), "folder that is not here");
}

TEST_F(EditDeathTest, EndsWhenAFolderGoesWithWhatIsInIt) {
  Edit edit(tree_);
  const ItemNumber folder = edit.make(Kind::folder);
  edit.setHere(folder, Here{inRoot("d"), Content::none});
  edit.setHere(edit.make(Kind::file), Here{{folder, "f"}, kNew});
  edit.setHere(folder, std::nullopt);
  EXPECT_DEATH(edit.commit(), "folder");
}

}  // namespace
}  // namespace kestrowan::replica::model
