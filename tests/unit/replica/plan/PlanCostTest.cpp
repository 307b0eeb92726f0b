#include <gtest/gtest.h>

#include "replica/plan/Plan.h"
#include "unit/replica/plan/StateBuilder.h"

namespace kestrowan::test {
namespace {

/// A folder with many files: some to be sent, some to be merged, some with requests without an
/// answer; and of each kind of change one to be asked about.
class Crowd {
 public:
  explicit Crowd(unsigned files) {
    const ItemNumber folder = state_.folder(StateBuilder::top("many"));
    const ItemNumber gone = state_.folder(StateBuilder::top("gone"));
    Edit edit(state_.tree());
    for (unsigned i = 0; i < files; ++i) addFile(edit, folder, gone, i);
    edit.setThere(gone, std::nullopt);
    edit.commit();
    asked_ = {created_, changed_, moved_, removed_, gone};
  }

  /// What it costs to plan for one of each kind.
  std::vector<std::uint64_t> costs() {
    std::vector<std::uint64_t> result;
    for (const ItemNumber item : asked_) {
      const std::uint64_t before = State::lookups();
      state_.plan(item);
      result.push_back(State::lookups() - before);
    }
    return result;
  }

 private:
  void addFile(Edit& edit, ItemNumber folder, ItemNumber gone, unsigned index) {
    const Place place{folder, "f" + std::to_string(index)};
    const There there{place, kVersion1, kOld};
    const ItemNumber item = edit.make(Kind::file);
    edit.setAgreed(item, there);
    edit.setThere(item, there);
    edit.setHere(item, Here{place, kOld});
    switch (index % 8) {
      case 0:
        edit.setThere(item, std::nullopt);
        edit.setAgreed(item, std::nullopt);
        created_ = item;
        break;
      case 1:
        edit.setHere(item, Here{place, kOurs});
        changed_ = item;
        break;
      case 2:
        edit.setHere(item, Here{{folder, place.name + " moved"}, kOld});
        moved_ = item;
        break;
      case 3:
        edit.setHere(item, std::nullopt);
        edit.addAfter(item, changed_);
        removed_ = item;
        break;
      case 4:
        edit.setThere(item, There{place, kVersion2, kNone});
        break;
      case 5:
        edit.setHere(item, Here{{gone, place.name}, kOld});
        edit.setThere(item, std::nullopt);
        break;
      case 6:
        addIntent(edit, item, "many/f" + std::to_string(index));
        break;
      default:
        break;
    }
  }
  static void addIntent(Edit& edit, ItemNumber item, const std::string& path) {
    Intent intent;
    intent.item = item;
    intent.target = Path().child(path);
    edit.add(intent);
  }

  StateBuilder state_;
  ItemNumber created_{};
  ItemNumber changed_{};
  ItemNumber moved_{};
  ItemNumber removed_{};
  std::vector<ItemNumber> asked_;
};

TEST(PlanCostTest, IsTheSameHoweverManyItemsWaitBesides) {
  const auto few = Crowd(16).costs();
  EXPECT_EQ(Crowd(8000).costs(), few);
  for (const std::uint64_t cost : few) EXPECT_LT(cost, 60U);
}

}  // namespace
}  // namespace kestrowan::test
