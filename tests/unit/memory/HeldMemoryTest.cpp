#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "replica/model/Edit.h"
#include "support/FailingMemory.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::model::Changes;
using replica::model::Content;
using replica::model::Edit;
using replica::model::Here;
using replica::model::ItemNumber;
using replica::model::Journal;
using replica::model::Kind;
using replica::model::Place;
using replica::model::There;
using replica::model::Tree;
using std::chrono::minutes;

constexpr int kInFolder = 1000;
constexpr int kFolders = 200;
constexpr std::size_t kItems = kFolders * kInFolder;

class NoJournal : public Journal {
 public:
  void write(const Changes&) override {}
};

/// Of as many digits as every other one.
std::string numbered(const std::string& prefix, int number) {
  return prefix + std::to_string(1'000'000 + number);
}

ItemNumber addInStep(Edit& edit, Kind kind, ItemNumber folder, int number) {
  There there;
  there.place = {folder, numbered("document ", number) + ".txt"};
  if (kind == Kind::file) there.version = {numbered("5f3c1d2e-10000-", number)};
  there.date = replica::model::Date(std::chrono::seconds(number));
  const ItemNumber item = edit.make(kind);
  edit.setHere(item, Here{there.place, Content::none});
  edit.setThere(item, there);
  edit.setAgreed(item, there);
  return item;
}

void build(Tree& tree) {
  for (int folder = 0; folder < kFolders; ++folder) {
    Edit edit(tree);
    const int first = folder * kInFolder;
    const ItemNumber parent = addInStep(edit, Kind::folder, ItemNumber::root, first);
    for (int i = 1; i < kInFolder; ++i) addInStep(edit, Kind::file, parent, first + i);
    edit.commit();
  }
}

TEST(HeldMemoryTest, AnItemInStepTakes220BytesAtMost) {
  NoJournal journal;
  Tree tree(journal);
  const std::size_t before = heldBytes();
  build(tree);
  const std::size_t each = (heldBytes() - before) / kItems;
  // Names have 20 bytes, and versions 22.
  EXPECT_GT(each, 150U);
  EXPECT_LE(each, 220U);
}

TEST(HeldMemoryTest, TheMemoryOfItemsEndsWithThem) {
  NoJournal journal;
  std::optional<Tree> tree(std::in_place, journal);
  build(*tree);
  const std::size_t most = heldBytes();
  tree.reset();
  EXPECT_LT(heldBytes(), most - kItems * 150);
}

TEST(HeldMemoryTest, AListingLeavesNothingThatIsKnownAlready) {
  constexpr int kFiles = 5000;
  constexpr std::size_t kLeft = 100'000;
  ReplicaWorld world;
  world.server().makeFolder("/large");
  for (int i = 0; i < kFiles; ++i) world.server().writeFile(numbered("/large/file ", i), "x");
  world.list("/large");
  world.advance(minutes(5));
  world.list("/large");
  world.advance(minutes(5));
  const std::size_t before = heldBytes();
  EXPECT_EQ(world.list("/large").size(), std::size_t{kFiles});
  world.advance(minutes(5));
  EXPECT_LT(heldBytes(), before + kLeft);
}

}  // namespace
}  // namespace kestrowan::test
