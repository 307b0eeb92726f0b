#include "host/StorageNote.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

namespace fs = std::filesystem;
using Kind = StorageNote::Kind;

class StorageNoteTest : public testing::Test {
 protected:
  Kind kind() const { return storageNote(state_.path()).kind; }
  void put(const std::string& text, const std::string& name = "container") const {
    std::ofstream(state_.path() + "/" + name, std::ios::binary | std::ios::trunc) << text;
  }

  const test::TemporaryDirectory state_;
};

TEST_F(StorageNoteTest, AStateThatIsNotThereYetIsUnused) {
  EXPECT_EQ(storageNote(state_.path() + "/nothing").kind, Kind::unused);
  EXPECT_EQ(kind(), Kind::unused);
  put("7\n", "lock");
  EXPECT_EQ(kind(), Kind::unused);
}

TEST_F(StorageNoteTest, AStateWithoutANoteIsOfAnUnknownStorage) {
  for (const char* name : {"replica.db", "contents", "recovery"}) {
    put("", name);
    EXPECT_EQ(kind(), Kind::unknown) << name;
    fs::remove(state_.path() + "/" + name);
  }
}

TEST_F(StorageNoteTest, WhatIsWrittenIsReadAgain) {
  for (const std::string container : {"/", "/data/a b", "/line\nbreak \"'\\", "/not UTF-8 \xFF"}) {
    for (const bool moved : {false, true}) {
      writeStorageNote(state_.path(), container, moved);
      const auto note = storageNote(state_.path());
      EXPECT_EQ(note.kind, Kind::known);
      EXPECT_EQ(note.container, container);
      EXPECT_EQ(note.moved, moved);
    }
  }
  struct stat status {};
  ASSERT_EQ(::stat((state_.path() + "/container").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_FALSE(fs::exists(state_.path() + "/container.new"));
}

TEST_F(StorageNoteTest, ANoteThatSaysNothingIsUnknown) {
  writeStorageNote(state_.path(), "/data/container", false);
  std::string whole;
  std::getline(std::ifstream(state_.path() + "/container"), whole);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    put(whole.substr(0, length));
    EXPECT_EQ(kind(), Kind::unknown) << length;
  }
  for (const std::string text :
       {"null", "[]", R"({"container":7})", R"({"container":"relative"})", R"({"container":""})",
        R"({"container":"/a\u0000b"})", R"({"containerHex":"2F6"})"}) {
    put(text);
    EXPECT_EQ(kind(), Kind::unknown) << text;
  }
  put(whole + std::string(1 << 20, ' '));
  EXPECT_EQ(kind(), Kind::unknown);
}

TEST_F(StorageNoteTest, OnlyARegularFileIsANote) {
  const auto note = state_.path() + "/container";
  put(R"({"container":"/elsewhere"})", "target");
  fs::create_symlink("target", note);
  EXPECT_EQ(kind(), Kind::unknown);
  fs::remove(note);
  fs::create_directory(note);
  EXPECT_EQ(kind(), Kind::unknown);
  fs::remove(note);
  ASSERT_EQ(::mkfifo(note.c_str(), 0600), 0);
  EXPECT_EQ(kind(), Kind::unknown);
}

TEST_F(StorageNoteTest, AnUnfinishedNoteIsNoneAndIsInNobodysWay) {
  put(R"({"conta)", "container.new");
  EXPECT_EQ(kind(), Kind::unused);
  writeStorageNote(state_.path(), "/data", false);
  EXPECT_EQ(storageNote(state_.path()).container, "/data");
}

TEST_F(StorageNoteTest, AWriteThatFailsLeavesTheNoteThatWasThere) {
  writeStorageNote(state_.path(), "/before", false);
  const pid_t child = ::fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit nothing{0, 0};
    ::setrlimit(RLIMIT_FSIZE, &nothing);
    try {
      writeStorageNote(state_.path(), "/after", false);
    } catch (const NSError&) {
      ::_exit(7);
    }
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
  EXPECT_EQ(storageNote(state_.path()).container, "/before");
  EXPECT_FALSE(fs::exists(state_.path() + "/container.new"));
}

}  // namespace
}  // namespace kestrowan::host
