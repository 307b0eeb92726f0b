#include "host/Directories.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>

#include "ScopedVariable.h"
#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

TEST(Directories, StateLiesWhereTheDesktopsRulesSay) {
  const ScopedVariable home("HOME", "/home/kes");
  const ScopedVariable state("XDG_STATE_HOME", "/data/state");
  EXPECT_EQ(stateHome(), "/data/state/kestrowan");
  EXPECT_EQ(standardStateDirectory("work"), "/data/state/kestrowan/work");
}

TEST(Directories, StateLiesInTheHomeWhenNothingElseIsSaid) {
  const ScopedVariable home("HOME", "/home/kes");
  for (const auto& value : {std::optional<std::string>(), std::optional<std::string>("relative"),
                            std::optional<std::string>("")}) {
    const ScopedVariable state("XDG_STATE_HOME", value);
    EXPECT_EQ(stateHome(), "/home/kes/.local/state/kestrowan");
  }
}

TEST(Directories, WithoutAHomeThereIsNoPlaceForState) {
  const ScopedVariable home("HOME", std::nullopt);
  const ScopedVariable state("XDG_STATE_HOME", std::nullopt);
  EXPECT_THROW(stateHome(), NSError);
}

TEST(Directories, ADomainsNameIsOneHarmlessComponent) {
  for (const auto* name : {"default", "Work-2", "a.b_c", "x"}) EXPECT_TRUE(isDomainName(name));
  for (const std::string name : {"", ".", "..", ".hidden", "a/b", "a b", "ü", "a\n"}) {
    EXPECT_FALSE(isDomainName(name)) << name;
    EXPECT_THROW(standardStateDirectory(name), NSError);
  }
  EXPECT_TRUE(isDomainName(std::string(64, 'x')));
  EXPECT_FALSE(isDomainName(std::string(65, 'x')));
}

TEST(Directories, TheRuntimeDirectoryMustBePrivate) {
  const test::TemporaryDirectory directory;
  const ScopedVariable runtime("XDG_RUNTIME_DIR", directory.path());
  EXPECT_EQ(runtimeHome(), directory.path());
  ASSERT_EQ(::chmod(directory.path().c_str(), 0777), 0);
  EXPECT_EQ(runtimeHome(), std::nullopt);
}

TEST(Directories, TheWayToTheRuntimeDirectoryMustBeTheUsersOwn) {
  const test::TemporaryDirectory directory;
  const auto path = directory.path() + "/run";
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  const ScopedVariable runtime("XDG_RUNTIME_DIR", path);
  EXPECT_EQ(runtimeHome(), path);
  ASSERT_EQ(::chmod(directory.path().c_str(), 0777), 0);
  EXPECT_EQ(runtimeHome(), std::nullopt);
  ASSERT_EQ(::chmod(directory.path().c_str(), 01777), 0);
  EXPECT_EQ(runtimeHome(), path);
}

TEST(Directories, APrivateDirectoryIsNotMadeWhereOthersCouldExchangeIt) {
  const test::TemporaryDirectory directory;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0770), 0);
  const auto path = directory.path() + "/a/b";
  try {
    openPrivateDirectory(path);
    FAIL();
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSPOSIXErrorDomain, EACCES));
    EXPECT_TRUE(error.localizedDescription().starts_with(directory.path() + ": others may write"))
        << error.localizedDescription();
  }
  struct stat status;
  EXPECT_NE(::lstat((directory.path() + "/a").c_str(), &status), 0);
}

TEST(Directories, ADirectoryThatOthersCouldLookIntoIsClosed) {
  const test::TemporaryDirectory directory;
  const auto path = directory.path() + "/a";
  for (const mode_t mode : {0755U, 0710U, 0500U}) {
    const auto opened = openPrivateDirectory(path);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    closeToOthers(opened, path);
    struct stat status;
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
  }
}

TEST(Directories, ARuntimeDirectoryThatIsMissingOrRelativeIsNone) {
  for (const auto& value : {std::optional<std::string>(), std::optional<std::string>("run"),
                            std::optional<std::string>("/nonexistent/run")}) {
    const ScopedVariable runtime("XDG_RUNTIME_DIR", value);
    EXPECT_EQ(runtimeHome(), std::nullopt);
  }
}

TEST(Directories, ShortNamesTellPathsApart) {
  std::set<std::string> names;
  for (int i = 0; i < 1000; ++i) names.insert(shortName("/state/" + std::to_string(i)));
  EXPECT_EQ(names.size(), 1000U);
  EXPECT_EQ(shortName("/a").size(), 16U);
  EXPECT_EQ(shortName("/a"), shortName("/a"));
}

}  // namespace
}  // namespace kestrowan::host
