#include "host/Registry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ScopedVariable.h"
#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

namespace fs = std::filesystem;

class RegistryTest : public testing::Test {
 protected:
  HostEntry entry(const std::string& name) const {
    return {.domain = name,
            .mountPoint = directory_.path() + "/mnt/" + name,
            .stateDirectory = directory_.path() + "/" + name,
            .container = "/srv/" + name,
            .options = {"--fsync=server", "--noexec"},
            .socket = "/run/" + name + ".sock",
            .process = ::getpid()};
  }

  test::TemporaryDirectory directory_;
  const ScopedVariable state_{"XDG_STATE_HOME", directory_.path()};
};

TEST_F(RegistryTest, NobodyIsKnownAtFirst) {
  EXPECT_TRUE(knownHosts().empty());
}

TEST_F(RegistryTest, EntriesThatOthersCouldHaveMadeAreNotRead) {
  const Registration registration(entry("a"));
  const auto place = directory_.path() + "/kestrowan/.hosts";
  ASSERT_EQ(::chmod(place.c_str(), 0770), 0);
  EXPECT_THROW(knownHosts(), NSError);
  ASSERT_EQ(::chmod(place.c_str(), 0700), 0);
  EXPECT_EQ(knownHosts().size(), 1U);
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0770), 0);
  EXPECT_THROW(knownHosts(), NSError);
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0700), 0);
}

TEST_F(RegistryTest, TheirPlaceIsClosedToOthers) {
  const auto place = directory_.path() + "/kestrowan/.hosts";
  fs::create_directories(place);
  ASSERT_EQ(::chmod(place.c_str(), 0755), 0);
  const Registration registration(entry("a"));
  EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all);
}

TEST_F(RegistryTest, AHostIsKnownWhileItLives) {
  {
    const Registration first(entry("b"));
    const Registration second(entry("a"));
    const auto hosts = knownHosts();
    ASSERT_EQ(hosts.size(), 2U);
    EXPECT_EQ(hosts[0].domain, "a");
    EXPECT_EQ(hosts[1].mountPoint, directory_.path() + "/mnt/b");
    EXPECT_EQ(hosts[1].stateDirectory, directory_.path() + "/b");
    EXPECT_EQ(hosts[1].container, "/srv/b");
    EXPECT_EQ(hosts[1].options, (std::vector<std::string>{"--fsync=server", "--noexec"}));
    EXPECT_EQ(hosts[1].socket, "/run/b.sock");
    EXPECT_EQ(hosts[1].process, ::getpid());
    EXPECT_TRUE(hosts[1].running);
  }
  EXPECT_TRUE(knownHosts().empty());
}

TEST_F(RegistryTest, AHostThatWasKilledIsKnownNotToRun) {
  const pid_t child = ::fork();
  if (child == 0) {
    const Registration registration(entry("a"));
    ::kill(::getpid(), SIGKILL);
    ::_exit(1);
  }
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  ASSERT_EQ(knownHosts().size(), 1U);
  EXPECT_FALSE(knownHosts()[0].running);

  const Registration successor(entry("a"));
  ASSERT_EQ(knownHosts().size(), 1U);
  EXPECT_TRUE(knownHosts()[0].running);
}

TEST_F(RegistryTest, PathsOfAnyBytesAreKept) {
  auto odd = entry("a");
  odd.mountPoint = "/mnt/\xff\n\"";
  const Registration registration(odd);
  ASSERT_EQ(knownHosts().size(), 1U);
  EXPECT_EQ(knownHosts()[0].mountPoint, odd.mountPoint);
}

TEST_F(RegistryTest, AnEntryOfAnEarlierVersionIsUnderstood) {
  const Registration registration(entry("a"));
  std::ofstream(directory_.path() + "/kestrowan/.hosts/earlier.json")
      << R"({"domain":"default","mountPoint":"/mnt","stateDirectory":"/s","socket":"/r",)"
      << R"("process":7})";
  const auto hosts = knownHosts();
  ASSERT_EQ(hosts.size(), 2U);
  EXPECT_EQ(hosts[0].domain, "default");
  EXPECT_EQ(hosts[0].container, "");
  EXPECT_TRUE(hosts[0].options.empty());
  EXPECT_GE(hosts[0].registered, hosts[1].registered);
}

TEST_F(RegistryTest, OtherFilesAreIgnored) {
  const Registration registration(entry("a"));
  const auto place = directory_.path() + "/kestrowan/.hosts/";
  std::ofstream(place + "garbage.json") << "{\"mountPoint\":";
  std::ofstream(place + "incomplete.json") << "{\"mountPoint\":\"/a\"}";
  std::ofstream(place + "notes.txt") << "x";
  fs::create_directory(place + "folder.json");
  fs::create_symlink("/etc/passwd", place + "link.json");
  ASSERT_EQ(::mkfifo((place + "fifo.json").c_str(), 0600), 0);
  EXPECT_EQ(knownHosts().size(), 1U);
}

class PlaceInMountTest : public testing::Test {
 protected:
  PlaceInMountTest() {
    fs::create_directories(directory_.path() + "/mnt/a");
    fs::create_symlink(directory_.path() + "/mnt/a", directory_.path() + "/link");
    fs::create_symlink("mnt", directory_.path() + "/relative");
    fs::create_symlink("loop", directory_.path() + "/loop");
    // To be told apart from a place in the mount by whoever follows it.
    fs::create_symlink("/etc", directory_.path() + "/mnt/a/etc");
  }
  /// The path within the mount; empty when there is none.
  std::string inside(const std::string& path, const std::string& directory = "/") const {
    const auto place = placeInMount(hosts_, path, directory);
    return place ? place->path : "";
  }

  test::TemporaryDirectory directory_;
  const std::string base_ = fs::canonical(directory_.path());
  const std::string mount_ = base_ + "/mnt/a";
  const std::vector<HostEntry> hosts_ = {
      {.domain = "a", .mountPoint = mount_, .running = true},
      {.domain = "dead", .mountPoint = base_ + "/mnt/dead", .running = false}};
};

TEST_F(PlaceInMountTest, APathIsSplitAtTheMountPoint) {
  EXPECT_EQ(inside(mount_), "/");
  EXPECT_EQ(inside(mount_ + "/"), "/");
  EXPECT_EQ(inside(mount_ + "/Home/x.txt"), "/Home/x.txt");
  EXPECT_EQ(inside(mount_ + "//Home/./x.txt/"), "/Home/x.txt");
}

TEST_F(PlaceInMountTest, APathElsewhereIsInNone) {
  EXPECT_EQ(inside("/"), "");
  EXPECT_EQ(inside(base_ + "/mnt"), "");
  EXPECT_EQ(inside(mount_ + "b/Home"), "");
  EXPECT_EQ(inside(base_ + "/mnt/dead/x"), "");
  EXPECT_EQ(inside(""), "");
}

TEST_F(PlaceInMountTest, ARelativePathBeginsAtTheDirectory) {
  EXPECT_EQ(inside("x.txt", mount_ + "/Home"), "/Home/x.txt");
  EXPECT_EQ(inside("", mount_ + "/Home"), "/Home");
  EXPECT_EQ(inside("a/Home", base_ + "/mnt"), "/Home");
}

TEST_F(PlaceInMountTest, GoingUpMayLeaveTheMount) {
  EXPECT_EQ(inside("../x.txt", mount_ + "/Home"), "/x.txt");
  EXPECT_EQ(inside("../../../a/y", mount_ + "/Home"), "");
  EXPECT_EQ(inside("../../a/y", mount_ + "/Home"), "/y");
  EXPECT_EQ(inside("../../../../../../../../../../..", mount_), "");
}

TEST_F(PlaceInMountTest, LinksAboveTheMountAreFollowed) {
  EXPECT_EQ(inside(base_ + "/link/Home"), "/Home");
  EXPECT_EQ(inside(base_ + "/relative/a/Home"), "/Home");
  EXPECT_EQ(inside(base_ + "/loop/a"), "");
}

TEST_F(PlaceInMountTest, NothingInTheMountIsLookedAt) {
  EXPECT_EQ(inside(mount_ + "/etc/passwd"), "/etc/passwd");
  EXPECT_EQ(inside(mount_ + "/etc/.."), "/");
}

}  // namespace
}  // namespace kestrowan::host
