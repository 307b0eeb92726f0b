#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "support/MemoryJournal.h"

namespace kestrowan::replica::model {
namespace {

/// More than an index keeps in one piece.
constexpr int kMany = 2000;

class TreeIndexTest : public testing::Test {
 protected:
  ItemNumber add(Kind kind, const std::string& name) {
    Edit edit(tree_);
    const ItemNumber number = edit.make(kind);
    edit.setHere(number, Here{{ItemNumber::root, name}, Content::none});
    edit.commit();
    return number;
  }

  std::vector<std::string> namesInRoot() const {
    const View view(tree_);
    std::vector<std::string> names;
    for (const Item* item : view->hereIn(ItemNumber::root)) {
      names.push_back(item->here()->place.name);
    }
    return names;
  }

  /// Adds these in this order, and expects them in theirs.
  void expectInOrder(std::vector<std::string> names) {
    for (const std::string& name : names) add(Kind::file, name);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(namesInRoot(), names);
    const View view(tree_);
    for (const std::string& name : names) {
      EXPECT_NE(view->hereAt(ItemNumber::root, name), nullptr) << name;
    }
    EXPECT_EQ(view->hereAt(ItemNumber::root, names.front() + "x"), nullptr);
  }

  test::MemoryJournal journal_;
  Tree tree_{journal_};
};

std::vector<std::string> manyNames() {
  std::vector<std::string> names;
  for (int i = 0; i < kMany; ++i) names.push_back("file " + std::to_string(i));
  return names;
}

TEST_F(TreeIndexTest, GivesManyNamesInTheirOrderWhereverTheyCameFrom) {
  auto names = manyNames();
  std::shuffle(names.begin(), names.end(), std::mt19937(1));
  expectInOrder(names);
}

TEST_F(TreeIndexTest, GivesNamesThatCameInTheirOrder) {
  auto names = manyNames();
  std::sort(names.begin(), names.end());
  expectInOrder(names);
}

TEST_F(TreeIndexTest, GivesNamesThatCameFromTheEnd) {
  auto names = manyNames();
  std::sort(names.rbegin(), names.rend());
  expectInOrder(names);
}

TEST_F(TreeIndexTest, CountsWhatIsInAFolderAndItsFolders) {
  const ItemNumber folder = add(Kind::folder, "d");
  add(Kind::file, "f");
  const ItemNumber gone = add(Kind::folder, "e");
  {
    const View view(tree_);
    EXPECT_EQ(view->countHereIn(ItemNumber::root), 3U);
    EXPECT_EQ(view->countFoldersHereIn(ItemNumber::root), 2U);
    EXPECT_EQ(view->countThereIn(ItemNumber::root), 0U);
    EXPECT_EQ(view->countHereIn(folder), 0U);
  }
  Edit edit(tree_);
  edit.drop(gone);
  EXPECT_EQ(edit->countHereIn(ItemNumber::root), 2U);
  EXPECT_EQ(edit->countFoldersHereIn(ItemNumber::root), 1U);
  edit.setHere(folder, Here{{ItemNumber::root, "moved"}, Content::none});
  EXPECT_EQ(edit->countFoldersHereIn(ItemNumber::root), 1U);
}

TEST_F(TreeIndexTest, HoldsWhatAMapHoldsAfterManyChanges) {
  std::map<std::string, ItemNumber> expected;
  std::mt19937 random(2);
  const auto names = manyNames();
  for (int round = 0; round < 3 * kMany; ++round) {
    const std::string& name = names[random() % names.size()];
    const auto known = expected.find(name);
    if (known == expected.end()) {
      expected[name] = add(Kind::file, name);
      continue;
    }
    Edit edit(tree_);
    edit.drop(known->second);
    edit.commit();
    expected.erase(known);
  }
  std::vector<std::string> left;
  for (const auto& [name, number] : expected) left.push_back(name);
  EXPECT_EQ(namesInRoot(), left);
  for (const auto& [name, number] : expected) {
    Edit edit(tree_);
    edit.drop(number);
    edit.commit();
  }
  EXPECT_EQ(View(tree_)->anyHereIn(ItemNumber::root), nullptr);
  EXPECT_EQ(View(tree_)->count(), 1U);
}

TEST_F(TreeIndexTest, KeepsOnceWhatIsTheSameHereAndThere) {
  Edit edit(tree_);
  const ItemNumber number = edit.make(Kind::file);
  const auto there = [](const std::string& name) {
    return There{{ItemNumber::root, name}, {"1"}, Content::none};
  };
  edit.setHere(number, Here{{ItemNumber::root, "a"}, Content::none});
  edit.setThere(number, there("a"));
  edit.setAgreed(number, there("a"));
  const Item& item = edit->item(number);
  EXPECT_TRUE(item.agreed().isSameAs(item.there()));
  EXPECT_EQ(item.here()->place.name.view().data(), item.there()->place.name.view().data());
  edit.setThere(number, there("b"));
  EXPECT_FALSE(item.agreed().isSameAs(item.there()));
  EXPECT_EQ(item.agreed()->place.name, "a");
  edit.setThere(number, there("a"));
  EXPECT_TRUE(item.agreed().isSameAs(item.there()));
  edit.commit();
}

}  // namespace
}  // namespace kestrowan::replica::model
