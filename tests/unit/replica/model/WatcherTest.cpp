#include "replica/model/Watcher.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "support/MemoryJournal.h"

namespace kestrowan::replica::model {
namespace {

constexpr Content kOld{1};
constexpr Content kNew{2};

Place inRoot(const std::string& name) {
  return {ItemNumber::root, name};
}

/// Takes down what it is told.
class Notes : public Watcher {
 public:
  struct Note {
    ItemNumber item;
    bool isNew;
    bool isGone;
    bool isElsewhere;
    bool hasOtherContents;
    bool hasOtherAttributes;
  };

  explicit Notes(const Tree& tree) : tree_(tree) {}

  void changed(const std::vector<ItemChange>& changes, Origin) noexcept override {
    for (const ItemChange& change : changes) {
      notes.push_back({change.any().number(), !change.before, !change.now, change.isElsewhereHere(),
                       change.hasOtherContents(), change.hasOtherAttributes()});
    }
  }
  void released() noexcept override {
    // Would wait for ever under the lock.
    itemsAtRelease = View(tree_)->count();
  }

  std::vector<Note> notes;
  std::optional<std::size_t> itemsAtRelease;

 private:
  const Tree& tree_;
};

class WatcherTest : public testing::Test {
 protected:
  WatcherTest() { tree_.watch(notes_); }

  ItemNumber file(const std::string& name) {
    Edit edit(tree_);
    const ItemNumber number = edit.make(Kind::file);
    edit.setHere(number, Here{inRoot(name), kOld});
    edit.setThere(number, There{inRoot(name), {"1"}, kOld});
    edit.setAgreed(number, There{inRoot(name), {"1"}, kOld});
    edit.commit();
    return number;
  }

  /// What is told of an edit of one item.
  template <class Change>
  Notes::Note toldOf(Change change) {
    notes_.notes.clear();
    Edit edit(tree_);
    change(edit);
    edit.commit();
    EXPECT_EQ(notes_.notes.size(), 1U);
    return notes_.notes.at(0);
  }

  test::MemoryJournal journal_;
  Tree tree_{journal_};
  Notes notes_{tree_};
};

TEST_F(WatcherTest, IsToldOnceTheEditIsWrittenAndOnceItsLockIsFree) {
  {
    Edit edit(tree_);
    const ItemNumber number = edit.make(Kind::file);
    edit.setHere(number, Here{inRoot("a"), kOld});
    edit.commit();
    ASSERT_EQ(notes_.notes.size(), 1U);
    EXPECT_EQ(notes_.notes[0].item, number);
    EXPECT_TRUE(notes_.notes[0].isNew);
    EXPECT_TRUE(notes_.notes[0].isElsewhere);
    EXPECT_FALSE(notes_.itemsAtRelease);
  }
  EXPECT_EQ(notes_.itemsAtRelease, 2U);
}

TEST_F(WatcherTest, IsNotToldOfWhatWasNotWritten) {
  {
    Edit edit(tree_);
    edit.setHere(edit.make(Kind::file), Here{inRoot("a"), kOld});
  }
  journal_.failOnce(posixError(ENOSPC));
  {
    Edit edit(tree_);
    edit.setHere(edit.make(Kind::file), Here{inRoot("a"), kOld});
    EXPECT_THROW(edit.commit(), NSError);
  }
  EXPECT_TRUE(notes_.notes.empty());
  EXPECT_FALSE(notes_.itemsAtRelease);
}

TEST_F(WatcherTest, LearnsWhatProgramsSeeOfAChange) {
  const ItemNumber a = file("a");
  const auto moved = toldOf([&](Edit& edit) { edit.setHere(a, Here{inRoot("b"), kOld}); });
  EXPECT_TRUE(moved.isElsewhere);
  EXPECT_FALSE(moved.hasOtherContents);
  EXPECT_FALSE(moved.hasOtherAttributes);
  const auto written = toldOf([&](Edit& edit) { edit.setHere(a, Here{inRoot("b"), kNew}); });
  EXPECT_FALSE(written.isElsewhere);
  EXPECT_TRUE(written.hasOtherContents);
  EXPECT_TRUE(written.hasOtherAttributes);
  const auto marked = toldOf([&](Edit& edit) {
    Attributes attributes;
    attributes.mode = 0400;
    edit.setAttributes(a, attributes);
  });
  EXPECT_FALSE(marked.hasOtherContents);
  EXPECT_TRUE(marked.hasOtherAttributes);
  const auto seenThere = toldOf([&](Edit& edit) {
    edit.setThere(a, There{inRoot("a"), {"2"}, Content::none});
  });
  EXPECT_FALSE(seenThere.isElsewhere || seenThere.hasOtherContents || seenThere.hasOtherAttributes);
  const auto gone = toldOf([&](Edit& edit) { edit.drop(a); });
  EXPECT_TRUE(gone.isGone);
  EXPECT_TRUE(gone.isElsewhere);
}

TEST_F(WatcherTest, DoesNotTakeADownloadForOtherContents) {
  const ItemNumber a = file("a");
  const auto remoteOnly = [&](const char* version) {
    return [&, version](Edit& edit) {
      edit.setHere(a, Here{inRoot("a"), Content::none});
      edit.setThere(a, There{inRoot("a"), {version}, Content::none});
      edit.setAgreed(a, There{inRoot("a"), {version}, Content::none});
    };
  };
  EXPECT_FALSE(toldOf(remoteOnly("1")).hasOtherContents);
  EXPECT_TRUE(toldOf(remoteOnly("2")).hasOtherContents);
  const auto downloaded = toldOf([&](Edit& edit) {
    edit.setHere(a, Here{inRoot("a"), kNew});
    edit.setAgreed(a, There{inRoot("a"), {"2"}, kNew});
  });
  EXPECT_FALSE(downloaded.hasOtherContents);
}

TEST_F(WatcherTest, DoesNotTakeAnotherVersionOfTheSameContentsForOthers) {
  const ItemNumber a = file("a");
  const auto remoteOnly = [](const char* version) {
    return There{inRoot("a"), {version}, Content::none};
  };
  toldOf([&](Edit& edit) {
    edit.setHere(a, Here{inRoot("a"), Content::none});
    edit.setThere(a, remoteOnly("1"));
    edit.setAgreed(a, remoteOnly("1"));
  });
  const auto describe = [&](Edit& edit, const char* version) {
    edit.describeAgreed(a, remoteOnly(version));
    edit.setThere(a, remoteOnly(version));
  };
  const auto described = toldOf([&](Edit& edit) { describe(edit, "1b"); });
  EXPECT_FALSE(described.hasOtherContents);
  EXPECT_FALSE(described.hasOtherAttributes);
  const auto describedThenOther = toldOf([&](Edit& edit) {
    describe(edit, "1c");
    edit.setAgreed(a, remoteOnly("2"));
  });
  EXPECT_TRUE(describedThenOther.hasOtherContents);
  const auto otherThenDescribed = toldOf([&](Edit& edit) {
    edit.setAgreed(a, remoteOnly("3"));
    describe(edit, "3b");
  });
  EXPECT_TRUE(otherThenDescribed.hasOtherContents);
}

}  // namespace
}  // namespace kestrowan::replica::model
