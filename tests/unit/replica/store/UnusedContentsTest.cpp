#include "replica/store/UnusedContents.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>

#include "StoreFixture.h"
#include "async/Scope.h"

namespace kestrowan::replica::store {
namespace {

using model::Content;
using model::Edit;
using model::Here;
using model::Intent;
using model::IntentNumber;
using model::ItemChange;
using model::ItemNumber;
using model::Kind;
using model::Origin;
using model::Path;
using model::There;
using std::chrono::milliseconds;

constexpr milliseconds kDelay{5000};

class UnusedContentsTest : public StoreFixture, public model::Watcher {
 protected:
  UnusedContentsTest() { tree().watch(*this); }
  ~UnusedContentsTest() override { scope_.close(); }

  void changed(const std::vector<ItemChange>& changes, Origin) noexcept override {
    for (const ItemChange& change : changes) unused_.note(change);
  }
  void released() noexcept override {}

  ItemNumber addDownloaded(const std::string& name, Content content) {
    return add(Kind::file, name, ItemNumber::root, content, 5);
  }
  /// What becomes of contents once all has been done that is to be done about them.
  bool staysThere(Content content) {
    loop_.advance(kDelay * 3);
    return isThere(content);
  }
  void setStates(ItemNumber number, Content there, Content agreed) {
    Edit edit(tree());
    There state{{ItemNumber::root, "a"}, {"2"}, there};
    edit.setThere(number, state);
    state.version = {"3"};
    state.content = agreed;
    edit.setAgreed(number, state);
    edit.commit();
  }

  std::set<ContentNumber> held_;
  async::Scope scope_{loop_};
  UnusedContents unused_{
      tree(),    scope_,    files(),
      journal(), history(), [this](ContentNumber number) { return held_.contains(number); }};
};

TEST_F(UnusedContentsTest, WhatNothingRefersToGoesAfterADelay) {
  const Content content = made("bytes");
  unused_.add({plain(content)});
  loop_.advance(kDelay - milliseconds(1));
  EXPECT_TRUE(isThere(content));
  loop_.advance(milliseconds(1));
  EXPECT_FALSE(isThere(content));
}

TEST_F(UnusedContentsTest, WhatAnyStateOfAnItemRefersToStays) {
  const Content here = made("here!");
  const Content there = made("there");
  const Content agreed = made("agree");
  const ItemNumber file = addDownloaded("a", here);
  setStates(file, there, agreed);
  unused_.add({plain(here), plain(there), plain(agreed)});
  EXPECT_TRUE(staysThere(here));
  EXPECT_TRUE(isThere(there));
  EXPECT_TRUE(isThere(agreed));
  EXPECT_TRUE(unused_.isReferredTo(plain(there)));
  setStates(file, Content::none, agreed);
  EXPECT_FALSE(staysThere(there));
  EXPECT_TRUE(isThere(agreed));
  EXPECT_FALSE(unused_.isReferredTo(plain(there)));
  setStates(file, Content::none, Content::none);
  EXPECT_FALSE(staysThere(agreed));
  EXPECT_TRUE(isThere(here));
}

TEST_F(UnusedContentsTest, WhatGoesFromOneItemToAnotherStays) {
  const Content content = made("bytes");
  const ItemNumber from = addHere("a", content, 5);
  const ItemNumber to = addHere("b", made("other"), 5);
  {
    Edit edit(tree());
    edit.setHere(from, Here{{ItemNumber::root, "a"}, Content::none});
    edit.setHere(to, Here{{ItemNumber::root, "b"}, content});
    edit.commit();
  }
  EXPECT_TRUE(staysThere(content));
  {
    // The other way round, in the order of the numbers.
    Edit edit(tree());
    edit.setHere(from, Here{{ItemNumber::root, "a"}, content});
    edit.setHere(to, Here{{ItemNumber::root, "b"}, Content::none});
    edit.commit();
  }
  EXPECT_TRUE(staysThere(content));
}

TEST_F(UnusedContentsTest, WhatWasEvictedGoes) {
  const Content content = made("bytes");
  const ItemNumber file = addDownloaded("a", content);
  {
    Edit edit(tree());
    There state{{ItemNumber::root, "a"}, {"1"}, Content::none};
    edit.setThere(file, state);
    edit.setAgreed(file, state);
    edit.setHere(file, Here{{ItemNumber::root, "a"}, Content::none});
    edit.commit();
  }
  EXPECT_FALSE(entry(content));
  EXPECT_FALSE(staysThere(content));
}

TEST_F(UnusedContentsTest, WhatIsInTheHistoryStaysUntilItLeavesThat) {
  const Content content = made("bytes");
  drop(addHere("a", content, 5), Origin::program);
  ASSERT_TRUE(entry(content));
  EXPECT_TRUE(staysThere(content));
  history().remove({*entry(content)});
  unused_.add({plain(content)});
  EXPECT_FALSE(staysThere(content));
}

TEST_F(UnusedContentsTest, WhatARequestMayHaveSentGoesOnceThatIsOver) {
  const Content content = made("bytes");
  Intent put;
  put.target = Path().child("a");
  put.content = content;
  put.until = kNow;
  IntentNumber number;
  {
    Edit edit(tree());
    number = edit.add(put);
    edit.commit();
  }
  unused_.add({plain(content)});
  EXPECT_TRUE(staysThere(content));
  {
    Edit edit(tree());
    edit.end(number);
    edit.commit();
  }
  EXPECT_FALSE(staysThere(content)) << "it is tried again";
}

TEST_F(UnusedContentsTest, WhatACallerHoldsGoesOnceItIsFree) {
  const Content content = made("bytes");
  held_ = {plain(content)};
  unused_.add({plain(content)});
  unused_.removeAtOnce({plain(content)});
  EXPECT_TRUE(staysThere(content));
  held_.clear();
  EXPECT_FALSE(staysThere(content));
}

TEST_F(UnusedContentsTest, WhatCanBeFetchedAgainGoesAtOnceUnlessItIsNeeded) {
  const Content unneeded = made("bytes");
  const Content needed = made("other");
  addDownloaded("a", needed);
  unused_.removeAtOnce({plain(unneeded), plain(needed)});
  EXPECT_FALSE(isThere(unneeded));
  EXPECT_TRUE(isThere(needed));
}

TEST_F(UnusedContentsTest, WhatIsNotThereIsNoTrouble) {
  unused_.add({});
  unused_.add({77, 77});
  loop_.advance(kDelay);
  unused_.removeNow();
  unused_.removeAtOnce({77});
}

TEST_F(UnusedContentsTest, WhatCannotBeRemovedIsTriedAgain) {
  const Content stuck = made("bytes");
  const Content other = made("other");
  // A folder in the place of the file cannot be removed as one.
  const auto path = files().path(plain(stuck));
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  unused_.add({plain(stuck), plain(other)});
  loop_.advance(kDelay);
  EXPECT_TRUE(std::filesystem::exists(path));
  std::filesystem::remove(path);
  writeFile(path, "bytes");
  EXPECT_FALSE(staysThere(stuck));
  EXPECT_FALSE(isThere(other));
}

}  // namespace
}  // namespace kestrowan::replica::store
