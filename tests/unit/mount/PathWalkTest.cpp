#include "mount/PathWalk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace kestrowan {
namespace {

namespace fs = std::filesystem;

class PathWalkTest : public testing::Test {
 protected:
  PathWalkTest() {
    fs::create_directories(base_ + "/a/b");
    std::ofstream(base_ + "/a/b/file") << "x";
  }

  static std::optional<std::string> nothing(const PathWalk::Part&) { return std::nullopt; }
  PathWalk walk(const std::string& path,
                PathWalk::LastLink last = PathWalk::LastLink::followed) const {
    return PathWalk(base_ + path, nothing, last);
  }
  static ino_t inode(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
  }
  void link(const std::string& target, const std::string& at) const {
    fs::create_symlink(target, base_ + at);
  }

  test::TemporaryDirectory directory_;
  const std::string base_ = fs::canonical(directory_.path());
};

TEST_F(PathWalkTest, EndsAtWhatLiesAtThePath) {
  for (const auto* path : {"/a/b/file", "//a/./b//file", "/a/b/../b/file"}) {
    const auto walked = walk(path);
    ASSERT_EQ(walked.error(), 0) << path;
    EXPECT_EQ(walked.path(), base_ + "/a/b/file");
    EXPECT_EQ(walked.status().st_ino, inode(base_ + "/a/b/file"));
    EXPECT_EQ(walked.name(), "file");
    EXPECT_EQ(walked.folderPath(), base_ + "/a/b");
    EXPECT_EQ(walked.folderStatus().st_ino, inode(base_ + "/a/b"));
  }
}

TEST_F(PathWalkTest, FollowsLinksOfEveryKind) {
  link(base_ + "/a", "/absolute");
  link("a/b", "/relative");
  link("../../absolute/b/file", "/a/b/up");
  EXPECT_EQ(walk("/absolute/b/file").path(), base_ + "/a/b/file");
  EXPECT_EQ(walk("/relative/file").path(), base_ + "/a/b/file");
  const auto last = walk("/relative/up");
  EXPECT_EQ(last.path(), base_ + "/a/b/file");
  EXPECT_EQ(last.folderPath(), base_ + "/a/b");
}

TEST_F(PathWalkTest, KeepsALinkInTheLastPlaceWhenTold) {
  link("a/b", "/link");
  const auto kept = walk("/link", PathWalk::LastLink::kept);
  EXPECT_TRUE(S_ISLNK(kept.status().st_mode));
  EXPECT_EQ(kept.name(), "link");
  // A slash after it asks for the folder.
  EXPECT_TRUE(S_ISDIR(walk("/link/", PathWalk::LastLink::kept).status().st_mode));
}

TEST_F(PathWalkTest, SaysWhatIsMissingAndWhere) {
  const auto last = walk("/a/new");
  EXPECT_EQ(last.error(), ENOENT);
  EXPECT_TRUE(last.folder());
  EXPECT_EQ(last.name(), "new");
  const auto before = walk("/new/file");
  EXPECT_EQ(before.error(), ENOENT);
  EXPECT_EQ(before.path(), base_ + "/new");
  EXPECT_FALSE(before.folder());
  EXPECT_EQ(walk("/a/b/file/x").error(), ENOTDIR);
  EXPECT_EQ(walk("/a/b/file/").error(), ENOTDIR);
  EXPECT_EQ(PathWalk("", nothing).error(), ENOENT);
}

TEST_F(PathWalkTest, ALinkToNowhereTellsWhereItLeads) {
  link("a/new", "/nowhere");
  link("missing/new", "/nowhere at all");
  const auto nowhere = walk("/nowhere");
  EXPECT_EQ(nowhere.error(), ENOENT);
  EXPECT_TRUE(nowhere.folder());
  EXPECT_EQ(nowhere.folderPath(), base_ + "/a");
  EXPECT_EQ(nowhere.name(), "new");
  EXPECT_FALSE(walk("/nowhere at all").folder());
}

TEST_F(PathWalkTest, LinksInACircleEnd) {
  link("two", "/one");
  link("one", "/two");
  EXPECT_EQ(walk("/one").error(), ELOOP);
  EXPECT_EQ(walk("/one/file").error(), ELOOP);
}

TEST_F(PathWalkTest, EveryFolderAndLinkIsJudgedWithTheFolderItLiesIn) {
  link("a", "/link");
  std::vector<std::string> judged;
  const PathWalk walked(base_ + "/link/b/file", [&](const PathWalk::Part& part) {
    if (part.path.starts_with(base_ + "/")) judged.push_back(part.path.substr(base_.size()));
    if (part.path == base_ + "/link") {
      EXPECT_TRUE(S_ISLNK(part.status.st_mode));
      EXPECT_EQ(part.folder.st_ino, inode(base_));
    }
    return std::optional<std::string>();
  });
  EXPECT_EQ(judged, (std::vector<std::string>{"/link", "/a", "/a/b", "/a/b/file"}));
}

TEST_F(PathWalkTest, ARefusalEndsTheWay) {
  const PathWalk walked(base_ + "/a/b/file", [&](const PathWalk::Part& part) {
    return part.path == base_ + "/a" ? std::optional<std::string>("no") : std::nullopt;
  });
  EXPECT_EQ(walked.refusal(), "no");
  EXPECT_FALSE(walked.end());
  EXPECT_EQ(walked.path(), base_ + "/a");
}

TEST_F(PathWalkTest, MakesFoldersButNotWhereALinkLeads) {
  const auto make = [&](const std::string& path) {
    return PathWalk(base_ + path, nothing, PathWalk::LastLink::kept, PathWalk::Missing::made);
  };
  EXPECT_EQ(make("/a/c/d").error(), 0);
  EXPECT_EQ(fs::status(base_ + "/a/c/d").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(base_ + "/a/c").permissions(), fs::perms::owner_all);
  link("a/elsewhere", "/link");
  EXPECT_EQ(make("/link/d").error(), ENOENT);
  EXPECT_FALSE(fs::exists(base_ + "/a/elsewhere"));
  link("a/c", "/good");
  EXPECT_EQ(make("/good/e").error(), 0);
  EXPECT_TRUE(fs::is_directory(base_ + "/a/c/e"));
}

TEST_F(PathWalkTest, ARelativePathBeginsAtTheWorkingDirectory) {
  const auto before = fs::current_path();
  fs::current_path(base_ + "/a");
  const PathWalk walked("b/file", nothing);
  const PathWalk here(".", nothing);
  const PathWalk above("../a", nothing);
  fs::current_path(before);
  EXPECT_EQ(walked.path(), "b/file");
  EXPECT_EQ(walked.status().st_ino, inode(base_ + "/a/b/file"));
  EXPECT_EQ(here.status().st_ino, inode(base_ + "/a"));
  EXPECT_EQ(above.status().st_ino, inode(base_ + "/a"));
}

TEST_F(PathWalkTest, ALinkOfTheSystemLeadsToWhatIsOpen) {
  const UniqueFd file(::open((base_ + "/a/b/file").c_str(), O_RDONLY | O_CLOEXEC));
  fs::remove(base_ + "/a/b/file");
  const PathWalk walked("/proc/self/fd/" + std::to_string(file.get()), nothing);
  struct stat status = {};
  ASSERT_EQ(::fstat(file.get(), &status), 0);
  EXPECT_EQ(walked.status().st_ino, status.st_ino);
  EXPECT_TRUE(walked.ledThroughOpenFile());
  EXPECT_FALSE(PathWalk("/proc/self/fd", nothing).ledThroughOpenFile());
}

}  // namespace
}  // namespace kestrowan
