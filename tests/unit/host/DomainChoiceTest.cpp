#include "host/DomainChoice.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "ScopedVariable.h"
#include "host/Directories.h"
#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

namespace fs = std::filesystem;

class DomainChoiceTest : public testing::Test {
 protected:
  /// Makes a state for a container; for none as an earlier version did.
  void makeState(const std::string& domain, const std::string& container, bool moved = false) {
    const auto directory = standardStateDirectory(domain);
    fs::create_directories(directory);
    std::ofstream(directory + "/replica.db") << "rows";
    if (!container.empty()) writeStorageNote(directory, container, moved);
  }

  const test::TemporaryDirectory directory_;
  const std::string base_ = withoutLinks(directory_.path());
  const std::string standard_ = base_ + "/data/K9PLW2XT4R.group.com.kestrowan.app";
  const ScopedVariable data_{"XDG_DATA_HOME", base_ + "/data"};
  const ScopedVariable state_{"XDG_STATE_HOME", base_ + "/state"};
  const ScopedVariable named_{"KESTROWAN_CONTAINER", std::nullopt};
};

TEST_F(DomainChoiceTest, TheStandardContainerKeepsItsDomain) {
  EXPECT_EQ(chosenContainer(), standard_);
  EXPECT_EQ(ownDomain(standard_), "default");
  const ScopedVariable named("KESTROWAN_CONTAINER", standard_ + "/.");
  EXPECT_EQ(chosenContainer(), standard_);
  EXPECT_TRUE(isStandardContainer(chosenContainer()));
}

TEST_F(DomainChoiceTest, AnotherContainerHasADomainMadeFromItsPath) {
  // For ever: another name would leave the changes of an earlier mount behind.
  EXPECT_EQ(ownDomain("/srv/work"), "work-add4cb61");
  EXPECT_NE(ownDomain("/srv/a/work"), ownDomain("/srv/b/work"));
  EXPECT_TRUE(ownDomain("/srv/.hidden").starts_with("hidden-"));
  EXPECT_TRUE(ownDomain("/srv/--option").starts_with("option-"));
  EXPECT_TRUE(ownDomain("/srv/a b").starts_with("a-b-"));
  EXPECT_TRUE(ownDomain("/").starts_with("storage-"));
  for (const std::string& path : {std::string("/srv/.."), std::string("/\xC3\xBC\n"),
                                  "/" + std::string(255, 'x'), std::string("/...")}) {
    EXPECT_TRUE(isDomainName(ownDomain(path))) << path;
  }
}

TEST_F(DomainChoiceTest, AContainerIsTheSameByWhateverPath) {
  fs::create_directories(base_ + "/real/deep");
  fs::create_symlink("real", base_ + "/link");
  fs::create_symlink(base_ + "/real/missing", base_ + "/dangling");
  for (const std::string path : {"/real/deep", "/real/deep/", "/real//./deep", "/link/deep",
                                 "/real/deep/../deep", "/link/deep/../../real/deep"}) {
    const ScopedVariable named("KESTROWAN_CONTAINER", base_ + path);
    EXPECT_EQ(chosenContainer(), base_ + "/real/deep") << path;
  }
  // One that is not there yet has the name that it will have.
  const ScopedVariable named("KESTROWAN_CONTAINER", base_ + "/dangling/x");
  const auto before = chosenContainer();
  EXPECT_EQ(before, base_ + "/real/missing/x");
  fs::create_directories(base_ + "/real/missing/x");
  EXPECT_EQ(chosenContainer(), before);
}

TEST_F(DomainChoiceTest, ARelativeContainerBeginsAtTheDirectory) {
  const auto before = fs::current_path();
  fs::create_directories(base_ + "/real");
  fs::current_path(base_ + "/real");
  const ScopedVariable named("KESTROWAN_CONTAINER", "../x");
  EXPECT_EQ(chosenContainer(), base_ + "/x");
  fs::current_path(before);
}

TEST_F(DomainChoiceTest, LinksInACircleEndSomewhere) {
  fs::create_symlink("loop", base_ + "/loop");
  EXPECT_EQ(withoutLinks(base_ + "/loop/x"), base_ + "/loop/x");
  EXPECT_EQ(withoutLinks("/"), "/");
  EXPECT_EQ(withoutLinks("/.."), "/");
}

TEST_F(DomainChoiceTest, WithoutAnyContainerThereIsNoDomain) {
  const ScopedVariable data("XDG_DATA_HOME", std::nullopt);
  const ScopedVariable home("HOME", std::nullopt);
  EXPECT_THROW(chosenContainer(), NSError);
}

TEST_F(DomainChoiceTest, AStateThatWasMovedToAContainerIsItsOwn) {
  const std::string container = "/srv/new";
  const auto own = ownDomain(container);
  EXPECT_EQ(domainOf(container), own);
  makeState("work", container);
  EXPECT_EQ(domainOf(container), own) << "named, and not moved";
  makeState("old-name", container, true);
  EXPECT_EQ(domainOf(container), "old-name");
  makeState("third", container, true);
  try {
    domainOf(container);
    FAIL() << "there are two";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSPOSIXErrorDomain, EINVAL));
    EXPECT_NE(error.localizedDescription().find("old-name, third"), std::string::npos);
  }
  makeState(own, container);
  EXPECT_EQ(domainOf(container), own);
}

TEST_F(DomainChoiceTest, AnOldStateOfTheStandardContainerStaysItsOwn) {
  makeState("default", "");
  makeState("work", standard_, true);
  EXPECT_EQ(domainOf(standard_), "default");
  fs::remove_all(standardStateDirectory("default"));
  makeState("default", "/srv/another");
  EXPECT_EQ(domainOf(standard_), "work");
}

TEST_F(DomainChoiceTest, AFreeDomainHasNoStateOfAnotherContainer) {
  EXPECT_EQ(freeDomain(standard_), "default");
  makeState("default", standard_);
  EXPECT_EQ(freeDomain(standard_), "default");
  makeState("default", "/srv/another");
  makeState("default-2", "");
  EXPECT_EQ(freeDomain(standard_), "default-3");
}

TEST_F(DomainChoiceTest, WhatIsNoStateIsNoDomain) {
  makeState("b", "");
  makeState("a", "/srv/a");
  fs::create_directories(stateHome() + "/.hosts");
  fs::create_directories(stateHome() + "/empty");
  std::ofstream(stateHome() + "/file") << "x";
  const auto found = domainsWithState();
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].first, "a");
  EXPECT_EQ(found[0].second.container, "/srv/a");
  EXPECT_EQ(found[1].first, "b");
}

}  // namespace
}  // namespace kestrowan::host
