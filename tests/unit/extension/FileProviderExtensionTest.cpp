#include "extension/FileProviderExtension.h"

#include <gmock/gmock.h>

#include "Completions.h"
#include "extension/fpLog.h"
#include "items/DAVEnumerator.h"

namespace kestrowan {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kNoConfigLine =
    "com.kestrowan.app.FileProvider:ext no WebDAV config in app group — host serve not up?";

class FileProviderExtensionTest : public test::RequestFixture {
 protected:
  /// How a lookup of an item ends, which tells whether there is a client.
  static test::Completion lookedUp(FileProviderExtension& extension) {
    test::CompletionWaiter waiter;
    return waiter.wait(extension.item("/a", {}, waiter.forItem()));
  }
};

TEST_F(FileProviderExtensionTest, ConstructionMakesNoRequestAndNoSession) {
  configure();
  makeExtension();
  EXPECT_TRUE(network_.requests().empty());
  EXPECT_TRUE(network_.configurations().empty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(FileProviderExtensionTest, EveryUnusableBridgeFileIsOneLogLineAndNoClient) {
  for (const auto text : {"", "[]", "{\"port\":1}", "{\"port\":\"1\",\"user\":\"\"}"}) {
    test::RecordingLog log;
    writeBridgeFile(text);
    auto extension = makeExtension();
    EXPECT_THAT(log.lines(), ElementsAre(kNoConfigLine)) << text;
    expectRefused(lookedUp(extension), notAuthenticated());
  }
}

TEST_F(FileProviderExtensionTest, AnAbsentBridgeFileIsOneLogLine) {
  makeExtension();
  EXPECT_THAT(log_.lines(), ElementsAre(kNoConfigLine));
}

TEST_F(FileProviderExtensionTest, AnAbsentContainerIsOneLogLine) {
  std::filesystem::remove(container());
  makeExtension();
  EXPECT_THAT(log_.lines(), ElementsAre(kNoConfigLine));
}

TEST_F(FileProviderExtensionTest, AnUndecodableCertificateIsNeitherLoggedNorFatal) {
  writeBridgeFile(FPBridge::Config{8443, "u", "p", "  QUJD"}.encode());
  auto extension = makeExtension();
  EXPECT_THAT(log_.lines(), IsEmpty());
  network_.answer({.body = test::multistatus(test::response("/a"))});
  EXPECT_FALSE(lookedUp(extension).error);
}

TEST_F(FileProviderExtensionTest, TheConfigurationIsReadOnce) {
  auto unconfigured = makeExtension();
  configure();
  EXPECT_TRUE(lookedUp(unconfigured).error);
  auto configured = makeExtension();
  std::filesystem::remove(container() + "/fp-webdav.json");
  network_.answer({.body = test::multistatus(test::response("/a"))});
  EXPECT_FALSE(lookedUp(configured).error);
}

TEST_F(FileProviderExtensionTest, InvalidatingChangesNothing) {
  configure();
  auto extension = makeExtension();
  extension.invalidate();
  network_.answer({.body = test::multistatus(test::response("/a"))});
  EXPECT_FALSE(lookedUp(extension).error);
  extension.invalidate();
  network_.answer({.body = test::multistatus(test::response("/a"))});
  EXPECT_FALSE(lookedUp(extension).error);
}

TEST_F(FileProviderExtensionTest, AllRequestsShareOneSession) {
  configure();
  auto extension = makeExtension();
  for (int i = 0; i < 3; ++i) {
    network_.answer({.body = test::multistatus(test::response("/a"))});
    lookedUp(extension);
  }
  EXPECT_EQ(network_.configurations().size(), 1u);
}

TEST_F(FileProviderExtensionTest, EveryIdentifierGetsAnEnumeratorAlsoWithoutAClient) {
  auto extension = makeExtension();
  for (const auto& identifier : {std::string(NSFileProviderRootContainerItemIdentifier),
                                 std::string(NSFileProviderWorkingSetContainerItemIdentifier),
                                 std::string(NSFileProviderTrashContainerItemIdentifier),
                                 std::string("/Home/a.txt"), std::string()}) {
    const auto enumerator = extension.enumerator(identifier, {});
    EXPECT_NE(std::dynamic_pointer_cast<DAVEnumerator>(enumerator), nullptr);
    EXPECT_NE(extension.enumerator(identifier, {}), enumerator);
  }
}

TEST(FPLog, IsOneLogger) {
  EXPECT_EQ(&fpLog(), &fpLog());
}

}  // namespace
}  // namespace kestrowan
