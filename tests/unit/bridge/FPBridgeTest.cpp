#include "bridge/FPBridge.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "platform/foundation/JSONValue.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"
#include "support/Cases.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan {
namespace {

using FPBridge::Config;

JSONValue decoded(const std::string& text) {
  try {
    const auto config = Config::decode(text);
    return JSONValue::Object{{"port", config.port},
                             {"user", config.user},
                             {"pass", config.pass},
                             {"certPEM", config.certPEM}};
  } catch (const NSError&) {
    return {};
  }
}

TEST(FPBridgeConfig, DecodesEveryKnownCase) {
  test::checkCases("json-config", "load_config",
                   [](const test::Case& one) { return decoded(one.bytes); },
                   {{"json-config-029", "whole numbers are decided exactly, not as doubles"}});
}

TEST(FPBridgeConfig, MembersOfOtherNamesAreIgnored) {
  EXPECT_EQ(Config::decode(R"({"x":[1,{}],"port":1,"user":"","pass":"","certPEM":"","y":null})"),
            (Config{1, "", "", ""}));
}

TEST(FPBridgeConfig, MemberNamesAreCaseSensitive) {
  EXPECT_TRUE(decoded(R"({"Port":1,"user":"","pass":"","certPEM":""})").isNull());
}

TEST(FPBridgeConfig, UnusablePortsAreAcceptedHere) {
  for (const std::int64_t port : {0L, -1L, 65536L, INT64_MIN, INT64_MAX}) {
    const Config config{port, "u", "p", "c"};
    EXPECT_EQ(Config::decode(config.encode()), config);
  }
}

TEST(FPBridgeConfig, EncodesItsMembersInOrder) {
  EXPECT_EQ((Config{8443, "u", "p", "c"}.encode()),
            R"({"port":8443,"user":"u","pass":"p","certPEM":"c"})");
}

TEST(FPBridgeConfig, EncodingSurvivesAwkwardTexts) {
  const Config config{1, "ü:\"\\", "/\n\t", "-----BEGIN"};
  EXPECT_EQ(Config::decode(config.encode()), config);
}

TEST(FPBridgeCodingKeys, AreTheFourNamesAndNothingElse) {
  for (const auto name : {"port", "user", "pass", "certPEM"}) {
    EXPECT_EQ(Config::CodingKeys::key(name), name);
  }
  for (const auto name : {"Port", "certpem", "", "host"}) {
    EXPECT_EQ(Config::CodingKeys::key(name), std::nullopt);
  }
}

TEST(FPBridgeCodingKeys, HaveNoIntegerValues) {
  for (std::int64_t value = -1; value < 5; ++value) {
    EXPECT_EQ(Config::CodingKeys::key(value), std::nullopt);
  }
}

class FPBridgeLoading : public ::testing::Test {
 protected:
  FPBridgeLoading() { ::setenv("KESTROWAN_CONTAINER", directory_.path().c_str(), 1); }
  ~FPBridgeLoading() override { ::unsetenv("KESTROWAN_CONTAINER"); }

  std::string file() const { return directory_.path() + "/fp-webdav.json"; }
  void write(std::string_view text) const { std::ofstream(file(), std::ios::binary) << text; }

  std::optional<std::int64_t> failure() const {
    try {
      FPBridge::loadConfig();
      return std::nullopt;
    } catch (const NSError& error) {
      EXPECT_EQ(error.domain(), NSCocoaErrorDomain);
      return error.code();
    }
  }

  test::TemporaryDirectory directory_;
};

TEST_F(FPBridgeLoading, TheContainerIsFoundByTheGroupIdentifier) {
  ASSERT_TRUE(FPBridge::groupURL());
  EXPECT_EQ(FPBridge::groupURL()->path(), directory_.path());
}

TEST_F(FPBridgeLoading, WithoutAContainerNoFileIsTouched) {
  class Manager : public NSFileManager {
   public:
    std::optional<NSURL> containerURL(std::string_view identifier) override {
      EXPECT_EQ(identifier, "K9PLW2XT4R.group.com.kestrowan.app");
      return std::nullopt;
    }
    NSURL temporaryDirectory() override { return unexpected(); }
    NSData contents(const NSURL&) override { return unexpected().path(); }
    bool createFile(const NSURL&, std::string_view) override { return unexpected().isFileURL(); }
    void moveItem(const NSURL&, const NSURL&) override { unexpected(); }
    void removeItem(const NSURL&) override { unexpected(); }
    std::optional<std::int64_t> fileSize(const NSURL&) override {
      unexpected();
      return 0;
    }
    std::size_t maximumNameLength(const NSURL&) override {
      unexpected();
      return 255;
    }

   private:
    static NSURL unexpected() {
      ADD_FAILURE() << "a file was touched";
      return NSURL::fileURLWithPath("/");
    }
  };
  const auto before = NSFileManager::defaultManager();
  NSFileManager::setDefaultManager(std::make_shared<Manager>());
  EXPECT_EQ(FPBridge::groupURL(), std::nullopt);
  EXPECT_EQ(failure(), NSFileNoSuchFileError);
  NSFileManager::setDefaultManager(before);
}

TEST_F(FPBridgeLoading, AContainerThatDoesNotExistIsNone) {
  ::setenv("KESTROWAN_CONTAINER", (directory_.path() + "/absent").c_str(), 1);
  EXPECT_EQ(FPBridge::groupURL(), std::nullopt);
}

TEST_F(FPBridgeLoading, AWholeFileLoads) {
  write(R"({"port":8443,"user":"u","pass":"p","certPEM":"c"})");
  EXPECT_EQ(FPBridge::loadConfig(), (Config{8443, "u", "p", "c"}));
}

TEST_F(FPBridgeLoading, AnAbsentFileFails) {
  EXPECT_EQ(failure(), NSFileReadNoSuchFileError);
}

TEST_F(FPBridgeLoading, EmptyCutAndForeignContentsFail) {
  for (const auto text : {"", "[]", "{", R"({"port":8443,"user":"u","pass":"p","certP)", "null",
                          R"({"port":8443,"user":"u","pass":"p"})",
                          R"({"port":"8443","user":"u","pass":"p","certPEM":"c"})",
                          R"({"port":8443.5,"user":"u","pass":"p","certPEM":"c"})"}) {
    write(text);
    EXPECT_TRUE(failure()) << text;
  }
}

TEST_F(FPBridgeLoading, AFileOfMoreThanOneMebibyteIsRefused) {
  write(R"({"port":8443,"user":"u","pass":"p","certPEM":"c"})" + std::string(1024 * 1024, ' '));
  EXPECT_EQ(failure(), NSFileReadTooLargeError);
}

TEST_F(FPBridgeLoading, ADirectoryInItsPlaceFails) {
  ASSERT_EQ(::mkdir(file().c_str(), 0700), 0);
  EXPECT_TRUE(failure());
}

TEST_F(FPBridgeLoading, AFifoInItsPlaceFailsAndDoesNotHang) {
  ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
  EXPECT_TRUE(failure());
}

}  // namespace
}  // namespace kestrowan
