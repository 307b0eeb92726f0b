#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>

#include "TreeFixture.h"
#include "platform/base/UniqueFd.h"

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

/// What becomes of a tree's rows when processes end, disks lie and files are spoilt.
class TreeJournalDamageTest : public TreeFixture {
 protected:
  static constexpr int kMany = 2000;

  TreeJournal journalIn(const std::string& directory) {
    return TreeJournal(directory, remote::IdentifierForm::paths(), kNow);
  }
  std::size_t countIn(const std::string& directory) {
    TreeJournal journal = journalIn(directory);
    const Tree tree(journal, journal.load());
    EXPECT_EQ(journal.leftOut(), 0U);
    return View(tree)->count();
  }
  std::int64_t errorOfOpening() {
    return errorOf([this] { journalIn(directory()); });
  }
  /// One commit for each, in order.
  void addMany(int count) {
    for (int i = 0; i < count; ++i) addHere("f" + std::to_string(i), Content{5});
  }
  /// The database's files as they are at the moment, in a directory of their own.
  std::string copyFiles() {
    const auto copy = directory() + "/copy";
    fs::remove_all(copy);
    fs::create_directory(copy);
    for (const auto& path : {file(), logFile()}) {
      if (fs::exists(path)) fs::copy_file(path, fs::path(copy) / fs::path(path).filename());
    }
    return copy;
  }
  static void overwrite(const std::string& path, off_t at, std::string_view bytes) {
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), at),
              static_cast<ssize_t>(bytes.size()));
  }
};

TEST_F(TreeJournalDamageTest, NumbersNeverRepeatAfterAnAbruptEnd) {
  close();
  std::uint64_t last = 1;
  // The third reserves more than once.
  for (const int edits : {1, 5, 3, 1}) {
    const bool isMany = edits == 3;
    const auto reported = inChild([&](const Report& report) {
      TreeJournal journal = journalIn(directory());
      Tree tree(journal, journal.load());
      std::uint64_t number = 0;
      for (int i = 0; i < edits; ++i) {
        Edit edit(tree);
        for (int made = 0; made < (isMany ? 70'000 : 1); ++made) {
          number = static_cast<std::uint64_t>(edit.make(Kind::file));
        }
        for (std::uint64_t made = number; isMany && made > number - 70'000; --made) {
          edit.drop(ItemNumber{made});
        }
        edit.commit();
      }
      report(std::to_string(number));
    });
    ASSERT_EQ(reported.find_first_not_of("0123456789"), std::string::npos) << reported;
    const auto number = std::stoull(reported);
    EXPECT_GE(number, last + static_cast<std::uint64_t>(edits));
    last = number;
  }
  open();
  EXPECT_GT(addHere("a"), ItemNumber{last});
}

TEST_F(TreeJournalDamageTest, ACopyOfTheFilesHoldsWhatWasCommittedBefore) {
  addMany(48);
  const Edit open(tree());
  EXPECT_EQ(countIn(copyFiles()), 49U);
}

TEST_F(TreeJournalDamageTest, ATornLogLosesOnlyTheLastCommits) {
  addMany(40);
  const auto whole = fs::file_size(logFile());
  std::size_t most = 0;
  std::size_t least = 100;
  for (std::uintmax_t length = whole; length > whole / 2; length -= 1111) {
    const auto directory = copyFiles();
    fs::resize_file(directory + "/replica.db-wal", length);
    TreeJournal torn = journalIn(directory);
    const Tree found(torn, torn.load());
    const View view(found);
    const std::size_t count = view->count() - 1;
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_NE(view->hereAt(ItemNumber::root, "f" + std::to_string(i)), nullptr) << length;
    }
    EXPECT_LE(count, least) << length;
    least = count;
    most = std::max(most, count);
  }
  EXPECT_EQ(most, 40U);
  EXPECT_LT(least, 30U);
}

TEST_F(TreeJournalDamageTest, AnInterruptedBeginningIsBegunAnew) {
  const auto whole = fs::file_size(logFile());
  for (std::uintmax_t length = 0; length <= whole; length += 1500) {
    const auto directory = copyFiles();
    fs::resize_file(directory + "/replica.db-wal", length);
    TreeJournal torn = journalIn(directory);
    Tree tree(torn, torn.load());
    EXPECT_EQ(View(tree)->count(), 1U) << length;
    Edit edit(tree);
    edit.setHere(edit.make(Kind::file), Here{{ItemNumber::root, "a"}, Content{5}});
    edit.commit();
  }
}

TEST_F(TreeJournalDamageTest, ASpoiltEndOfTheLogIsNotTakenForACommit) {
  addMany(40);
  const auto directory = copyFiles();
  const auto log = directory + "/replica.db-wal";
  overwrite(log, static_cast<off_t>(fs::file_size(log)) - 100, "spoilt");
  EXPECT_EQ(countIn(directory), 40U) << "the root and all but the last";
}

TEST_F(TreeJournalDamageTest, ADamagedFileIsRefusedByName) {
  {
    Edit edit(tree());
    for (int i = 0; i < kMany; ++i) {
      edit.setHere(edit.make(Kind::file),
                   Here{{ItemNumber::root, "f" + std::to_string(i)}, Content{5}});
    }
    edit.commit();
  }
  close();
  const auto size = static_cast<off_t>(fs::file_size(file()));
  for (const off_t at : {off_t{0}, off_t{100}, size / 2, size - 4096}) {
    const auto copy = copyFiles();
    overwrite(copy + "/replica.db", at, std::string(64, '\xEE'));
    const auto before = bytesOf(copy + "/replica.db");
    EXPECT_EQ(errorOf([&] { journalIn(copy); }), EIO) << at;
    EXPECT_TRUE(bytesOf(copy + "/replica.db") == before) << "it is kept";
  }
  EXPECT_EQ(countIn(directory()), kMany + 1U);
  fs::resize_file(file(), fs::file_size(file()) / 2);
  EXPECT_EQ(errorOfOpening(), EIO) << "it is cut off";
}

TEST_F(TreeJournalDamageTest, AFileOfAnotherKindIsRefusedAndKept) {
  close();
  fs::remove(file());
  writeFile(file(), std::string(10'000, 'x'));
  EXPECT_EQ(errorOfOpening(), EIO);
  EXPECT_EQ(fs::file_size(file()), 10'000U);
}

TEST_F(TreeJournalDamageTest, ADatabaseOfAnotherProgramIsRefused) {
  close();
  fs::remove(file());
  Database(file()).execute("CREATE TABLE theirs(a)");
  EXPECT_EQ(errorOfOpening(), EIO);
  Database(file()).execute("PRAGMA user_version=100");
  EXPECT_EQ(errorOfOpening(), EIO);
}

TEST_F(TreeJournalDamageTest, AnEmptyFileBecomesADatabase) {
  close();
  fs::remove(file());
  writeFile(file(), "");
  open();
  addHere("a", Content{5});
  reopen();
  EXPECT_EQ(items().size(), 2U);
}

TEST_F(TreeJournalDamageTest, ASymbolicLinkInPlaceOfTheDatabaseIsRefused) {
  close();
  fs::remove(file());
  const auto victim = directory() + "/victim";
  writeFile(victim, "");
  fs::create_symlink(victim, file());
  EXPECT_EQ(errorOfOpening(), EINVAL);
  EXPECT_EQ(fs::file_size(victim), 0U);
}

TEST_F(TreeJournalDamageTest, ADirectoryThatIsNotThereIsAnError) {
  EXPECT_EQ(errorOf([this] { journalIn(directory() + "/absent"); }), ENOENT);
}

TEST_F(TreeJournalDamageTest, TakesAwayRightsThatOthersHaveOnTheDatabase) {
  close();
  fs::permissions(file(), fs::perms(0644));
  open();
  EXPECT_EQ(fs::status(file()).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(logFile()).permissions(), fs::perms(0600));
}

TEST_F(TreeJournalDamageTest, AnEditThatIsNotWrittenLeavesTheSeriesOfNumbersAlone) {
  const ItemNumber before = addHere("a", Content{5});
  {
    Edit undone(tree());
    for (int i = 0; i < 300'000; ++i) undone.make(Kind::file);
  }
  const ItemNumber after = addHere("b", Content{6});
  EXPECT_GT(after, before);
  reopen();
  EXPECT_GT(addHere("c", Content{7}), after);
}

TEST_F(TreeJournalDamageTest, SyncsBesideThreadsThatCommit) {
  constexpr int kEdits = 3000;
  std::atomic<bool> isDone = false;
  std::atomic<int> syncs = 0;
  std::thread syncer([&] {
    while (!isDone) {
      journal().sync();
      ++syncs;
    }
  });
  // Through the point, too, where the log is moved to the file.
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < kEdits; ++i) {
      Edit edit(tree());
      const ItemNumber number{static_cast<std::uint64_t>(i) + 2};
      if (round == 0) edit.make(Kind::file);
      const std::string name = std::to_string(round) + " " + std::to_string(i);
      edit.setHere(number, Here{{ItemNumber::root, name}, Content{5}});
      edit.commit();
    }
  }
  while (syncs == 0) std::this_thread::yield();
  isDone = true;
  syncer.join();
  const Edit open(tree());
  journal().sync();
}

TEST_F(TreeJournalDamageTest, CompactingGivesSpaceBackAndKeepsTheRows) {
  constexpr std::uint64_t kItems = 20'000;
  {
    Edit edit(tree());
    for (std::uint64_t i = 0; i < kItems; ++i) {
      const ItemNumber number = edit.make(Kind::file);
      edit.setHere(number, Here{{ItemNumber::root, std::to_string(i)}, Content{5}});
      model::Attributes attributes;
      attributes.user = model::UserAttributes{{"user.text", std::string(600, 'x')}};
      edit.setAttributes(number, attributes);
    }
    edit.commit();
  }
  reopen();
  const auto before = fs::file_size(file());
  {
    Edit edit(tree());
    for (std::uint64_t i = 12; i < kItems + 2; ++i) edit.drop(ItemNumber{i});
    edit.commit();
  }
  int steps = 0;
  while (journal().compact()) ++steps;
  EXPECT_GT(steps, 2);
  EXPECT_LT(fs::file_size(file()), before / 10);
  EXPECT_EQ(items().size(), 11U);
  addHere("new", Content{6});
  reopen();
  EXPECT_EQ(items().size(), 12U);
}

}  // namespace
}  // namespace kestrowan::replica::store
