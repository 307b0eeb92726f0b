#include "mount/UntoldChanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace kestrowan::mount {
namespace {

using namespace std::chrono_literals;
using replica::ItemKind;
using replica::NameChange;
using replica::Rid;
using testing::ElementsAre;
using testing::IsEmpty;

using Shown = std::optional<NameChange::Shown>;

Shown file(Rid item) {
  return NameChange::Shown{item, ItemKind::file};
}

class UntoldChangesTest : public testing::Test {
 protected:
  void note(Rid folder, const std::string& name, Shown before, Shown now) {
    changes.note({{folder, name, before, now, false}}, moment);
  }
  void noteMany(Rid folder, std::size_t count, Rid first = 1000) {
    std::vector<NameChange> many;
    for (Rid item = first; item < first + count; ++item) {
      many.push_back({folder, std::to_string(item), {}, file(item), false});
    }
    changes.note(many, moment);
  }
  std::vector<EventCall> next() {
    changes.noteTold();
    return changes.next(moment);
  }

  unsigned wakes = 0;
  UntoldChanges::Moment moment{1000s};
  UntoldChanges changes{[this] { ++wakes; }};
};

TEST_F(UntoldChangesTest, ChangesAreToldOneAfterAnotherAndFolderByFolder) {
  note(1, "a", {}, file(11));
  note(1, "b", file(12), {});
  note(2, "c", {}, file(13));
  EXPECT_EQ(wakes, 3u);
  EXPECT_THAT(next(), ElementsAre(EventCall{EventKind::placeFile, 1, "a", 11, 0}));
  EXPECT_THAT(next(), ElementsAre(EventCall{EventKind::placeFile, 2, "c", 13, 0}));
  EXPECT_THAT(next(), ElementsAre(EventCall{EventKind::removeFile, 1, "b", 12, 0}));
  EXPECT_THAT(next(), IsEmpty());
}

TEST_F(UntoldChangesTest, ChangesOfOneNameBecomeOne) {
  note(1, "a", file(11), file(12));
  note(1, "a", file(12), file(13));
  EXPECT_THAT(next(), ElementsAre(EventCall{EventKind::placeFile, 1, "a", 13, 11},
                                  EventCall{EventKind::touch, 1, "a", 13, 0}));
  note(1, "b", {}, file(14));
  note(1, "b", file(14), {});
  EXPECT_THAT(next(), IsEmpty());
}

TEST_F(UntoldChangesTest, AChangeOfANameThatIsBeingToldIsToldAfterwards) {
  note(1, "a", {}, file(11));
  EXPECT_THAT(next(), testing::SizeIs(1));
  note(1, "a", file(11), {});
  EXPECT_THAT(next(), ElementsAre(EventCall{EventKind::removeFile, 1, "a", 11, 0}));
}

TEST_F(UntoldChangesTest, ANameIsUntoldUntilItsCallsAreMade) {
  EXPECT_FALSE(changes.isUntold(1, "a"));
  note(1, "a", {}, file(11));
  EXPECT_TRUE(changes.isUntold(1, "a"));
  EXPECT_FALSE(changes.isUntold(1, "b"));
  EXPECT_FALSE(changes.isUntold(2, "a"));
  next();
  EXPECT_TRUE(changes.isUntold(1, "a"));
  changes.noteTold();
  EXPECT_FALSE(changes.isUntold(1, "a"));
  note(1, "a", {}, file(11));
  changes.clear();
  EXPECT_FALSE(changes.isUntold(1, "a"));
}

TEST_F(UntoldChangesTest, ManyChangesOfAFolderAreToldAsOneWhenNoMoreCome) {
  noteMany(1, UntoldChanges::kMost + 1);
  note(2, "c", {}, file(13));
  EXPECT_THAT(next(), ElementsAre(EventCall{EventKind::placeFile, 2, "c", 13, 0}));
  EXPECT_THAT(next(), IsEmpty());
  EXPECT_EQ(changes.nextMoment(), moment + UntoldChanges::kQuiet);
  moment += UntoldChanges::kQuiet - 1ms;
  noteMany(1, 3, 9000);
  EXPECT_THAT(next(), IsEmpty());
  moment += UntoldChanges::kQuiet;
  EXPECT_THAT(next(), ElementsAre(callForFolder(1)));
  EXPECT_THAT(next(), IsEmpty());
  EXPECT_EQ(changes.nextMoment(), std::nullopt);
}

TEST_F(UntoldChangesTest, AsManyAsMayBeAreToldOneByOne) {
  noteMany(1, UntoldChanges::kMost);
  std::size_t told = 0;
  while (!next().empty()) ++told;
  EXPECT_EQ(told, UntoldChanges::kMost);
}

TEST_F(UntoldChangesTest, ChangesThatNeverStopAreToldAllTheSame) {
  const auto first = moment;
  noteMany(1, UntoldChanges::kMost + 1);
  while (next().empty() && moment < first + 60s) {
    moment += 100ms;
    noteMany(1, 1);
  }
  EXPECT_EQ(moment, first + UntoldChanges::kLongest);
}

}  // namespace
}  // namespace kestrowan::mount
