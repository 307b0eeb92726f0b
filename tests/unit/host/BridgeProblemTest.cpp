#include "host/BridgeProblem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "ScopedVariable.h"
#include "bridge/FPBridge.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

using testing::HasSubstr;

class BridgeProblemTest : public testing::Test {
 protected:
  std::string problem() const {
    return bridgeProblem(*NSFileManager::defaultManager()).value_or("none");
  }
  void write(const std::string& text) const { std::ofstream(bridge_) << text; }

  test::TemporaryDirectory directory_;
  const std::string bridge_ = directory_.path() + "/fp-webdav.json";
  const ScopedVariable container_{"KESTROWAN_CONTAINER", directory_.path()};
};

TEST_F(BridgeProblemTest, AUsableFileIsNone) {
  write(R"({"port": 1, "user": "u", "pass": "p", "certPEM": "c"})");
  EXPECT_EQ(problem(), "none");
}

TEST_F(BridgeProblemTest, AMissingFileIsNamed) {
  EXPECT_THAT(problem(), HasSubstr(bridge_ + ": "));
  EXPECT_THAT(problem(), HasSubstr("check that the host application is running"));
}

TEST_F(BridgeProblemTest, ABrokenFileIsNamedWithWhatItLacks) {
  for (const char* text : {"", "{", "[]", R"({"port": 1})", R"({"port": "1", "user": "u"})"}) {
    write(text);
    EXPECT_THAT(problem(), HasSubstr(bridge_ + " is not a JSON object with \"port\""));
  }
}

TEST_F(BridgeProblemTest, ARefusedContainerIsNamedWithTheReason) {
  ::chmod(directory_.path().c_str(), 0777);
  EXPECT_THAT(problem(), HasSubstr(directory_.path() + ": "));
  EXPECT_THAT(problem(), HasSubstr("chmod go-w"));
}

TEST_F(BridgeProblemTest, AMissingContainerIsToldOfWithThePlacesWhereItWasLookedFor) {
  std::filesystem::remove_all(directory_.path());
  EXPECT_THAT(problem(), HasSubstr("there is no container directory"));
  EXPECT_THAT(problem(), HasSubstr("looked at " + directory_.path() + ", which"));
}

TEST_F(BridgeProblemTest, WithoutAChoiceTheStandardPlaceIsNamed) {
  const ScopedVariable none("KESTROWAN_CONTAINER", "");
  const ScopedVariable base("XDG_DATA_HOME", directory_.path());
  EXPECT_THAT(problem(), HasSubstr("looked at " + directory_.path() + "/" +
                                   std::string(FPBridge::kGroupIdentifier) + "; neither"));
  const ScopedVariable noBase("XDG_DATA_HOME", "");
  const ScopedVariable noHome("HOME", "");
  EXPECT_THAT(problem(), HasSubstr("looked nowhere"));
}

TEST_F(BridgeProblemTest, AnotherProgramOnThePortIsToldOf) {
  write(R"({"port": 8443, "user": "u", "pass": "p", "certPEM": "c"})");
  EXPECT_EQ(distrustText(NSError(NSURLErrorDomain, NSURLErrorCancelled)),
            "another program answers on port 8443: its certificate is not the one in the bridge "
            "file");
  EXPECT_EQ(distrustText(NSError(NSFileProviderErrorDomain, -1000)),
            "the server on port 8443 refuses the user and password in the bridge file");
  EXPECT_EQ(distrustText(NSError(NSURLErrorDomain, NSURLErrorTimedOut)), "The request timed out.");
}

}  // namespace
}  // namespace kestrowan::host
