#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "StoreSupport.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "replica/store/AtRest.h"
#include "replica/store/Contents.h"
#include "replica/store/History.h"
#include "replica/store/StartRepair.h"
#include "replica/store/TreeJournal.h"
#include "replica/store/UseMark.h"
#include "support/SimulatedLoop.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica::store {
namespace {

namespace fs = std::filesystem;
using model::Content;
using model::Edit;
using model::Here;
using model::ItemNumber;
using model::Kind;
using model::Tree;
using model::View;

constexpr model::Time kNow{std::chrono::milliseconds(1'700'000'000'000)};

/// All that begins with a replica, in the order in which it begins.
struct Begun {
  explicit Begun(const std::string& directory)
      : files(directory),
        mark(directory),
        journal(directory, remote::IdentifierForm::paths(), kNow),
        tree(journal, journal.load()),
        contents(files, journal.firstFreeContent()),
        history(journal, files, loop) {
    StartRepair(directory, tree, contents, journal, history, loop, mark.machineStopped()).run();
    journal.sync();
    mark.set();
  }
  void make(const std::string& name) {
    Edit edit(tree);
    const ItemNumber number = edit.make(Kind::file);
    edit.setHere(number, Here{{ItemNumber::root, name}, Content::none});
    model::There there{{ItemNumber::root, name}, {"1"}, Content::none};
    edit.setThere(number, there);
    edit.setAgreed(number, there);
    edit.commit();
  }
  std::size_t count() const { return View(tree)->count(); }

  test::SimulatedLoop loop;
  ContentFiles files;
  UseMark mark;
  TreeJournal journal;
  Tree tree;
  Contents contents;
  History history;
};

class FullDiskTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!canMount()) GTEST_SKIP() << "no file system can be mounted here";
  }
  /// In a process of its own, with a small file system in the directory. It reports what is wrong.
  std::string onSmallDisk(const std::function<std::string(const std::string&)>& body,
                          const char* size = "1m") const {
    return inChild([&](const Report& report) {
      if (!mountSmallFileSystem(directory_.path(), size)) return report("mount");
      report(body(directory_.path()));
    });
  }

 private:
  const test::TemporaryDirectory directory_;
};

/// Makes files until there is no room; how many were made.
std::size_t fillWithRows(Begun& begun, std::int64_t& code) {
  std::size_t made = 0;
  try {
    for (; made < 100'000; ++made) begun.make(std::to_string(made) + std::string(200, 'x'));
  } catch (const NSError& error) {
    code = error.code();
  }
  return made;
}

TEST_F(FullDiskTest, AnEditThatHasNoRoomIsNotMadeAndThoseAfterItAreOnceThereIsSome) {
  EXPECT_EQ(onSmallDisk([](const std::string& directory) -> std::string {
              Begun begun(directory);
              std::int64_t code = 0;
              const std::size_t made = fillWithRows(begun, code);
              if (code != ENOSPC) return "no error of a full disk";
              if (begun.count() != made + 1) return "the tree was changed";
              if (!enlargeSmallFileSystem(directory)) return "remount";
              begun.make("last");
              if (begun.count() != made + 2) return "nothing was made";
              return "";
            }),
            "");
}

TEST_F(FullDiskTest, NothingIsMissingAfterAnEditThatHadNoRoom) {
  EXPECT_EQ(onSmallDisk([](const std::string& directory) -> std::string {
              std::size_t made = 0;
              {
                Begun begun(directory);
                std::int64_t code = 0;
                made = fillWithRows(begun, code);
              }
              if (!enlargeSmallFileSystem(directory)) return "remount";
              const Begun again(directory);
              if (again.count() != made + 1) return "rows are missing, or too many";
              return "";
            }),
            "");
}

TEST_F(FullDiskTest, AReplicaThatWasStoppedInOrderBeginsWithoutAnyRoom) {
  EXPECT_EQ(onSmallDisk([](const std::string& directory) -> std::string {
              {
                Begun begun(directory);
                begun.make("a");
                begun.journal.sync();
                begun.mark.clear();
              }
              fillUp(directory);
              Begun again(directory);
              if (again.count() != 2) return "it has not what it had";
              again.mark.clear();
              return "";
            }),
            "");
}

TEST_F(FullDiskTest, AReplicaWhoseProcessDiedBeginsWithoutAnyRoom) {
  EXPECT_EQ(onSmallDisk([](const std::string& directory) -> std::string {
              const auto died = inChild([&](const Report&) {
                Begun begun(directory);
                begun.make("a");
                ::_exit(0);
              });
              if (!died.empty()) return died;
              fillUp(directory);
              const Begun again(directory);
              if (again.count() != 2) return "it has not what it had";
              return "";
            }),
            "");
}

/// Large enough for the room that a log keeps.
constexpr const char* kRoomy = "8m";

TEST_F(FullDiskTest, WhatGivesSpaceBackCanBeNotedWithoutAnyRoom) {
  EXPECT_EQ(onSmallDisk(
                [](const std::string& directory) -> std::string {
                  {
                    Begun begun(directory);
                    begun.make("a");
                    begun.mark.clear();
                  }
                  fillUp(directory);
                  Begun again(directory);
                  Edit edit(again.tree);
                  edit.drop(ItemNumber{2});
                  edit.commit();
                  return "";
                },
                kRoomy),
            "");
}

TEST_F(FullDiskTest, TheSameAfterALookAtARestingReplica) {
  EXPECT_EQ(onSmallDisk(
                [](const std::string& directory) -> std::string {
                  {
                    Begun begun(directory);
                    begun.make("a");
                    begun.mark.clear();
                  }
                  fillUp(directory);
                  unsentIn(directory, 5);
                  ageListings(directory);
                  Begun again(directory);
                  Edit edit(again.tree);
                  edit.drop(ItemNumber{2});
                  edit.commit();
                  return "";
                },
                kRoomy),
            "");
}

}  // namespace
}  // namespace kestrowan::replica::store
