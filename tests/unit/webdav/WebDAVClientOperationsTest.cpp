#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSFileManager.h"
#include "support/Cases.h"
#include "support/Fixture.h"
#include "support/TaskResult.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {
namespace {

using test::multistatus;
using test::response;
using test::resultOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class WebDAVClientOperations : public test::ExtensionFixture {
 protected:
  template <typename Operation>
  std::optional<NSError> failure(Operation operation) {
    try {
      resultOf(operation());
      return std::nullopt;
    } catch (const NSError& error) {
      return error;
    }
  }

  static std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }

  std::vector<std::string> listed(const std::string& path) {
    std::vector<std::string> paths;
    for (const auto& entry : resultOf(client_->list(path))) paths.push_back(entry.path);
    return paths;
  }

  const std::shared_ptr<WebDAVClient> client_ =
      WebDAVClient::make(FPBridge::Config{8443, "u", "p", ""}, std::nullopt);
};

TEST_F(WebDAVClientOperations, ListAsksForTheFolderWithASlashAndDepthOne) {
  network_.answer({.body = multistatus("")});
  EXPECT_THAT(listed("/Home/Docs"), IsEmpty());
  const auto request = network_.requests().at(0);
  EXPECT_EQ(request.line, "PROPFIND https://127.0.0.1:8443/Home/Docs/");
  EXPECT_THAT(request.headers, ElementsAre("Depth: 1", "Content-Type: application/xml"));
  EXPECT_EQ(request.timeoutInterval, 60);
  EXPECT_FALSE(request.body);
}

TEST_F(WebDAVClientOperations, ListAddsNoSecondSlash) {
  network_.answer({.body = multistatus("")});
  network_.answer({.body = multistatus("")});
  listed("/Home/");
  listed("");
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /Home/", "PROPFIND /"));
}

TEST_F(WebDAVClientOperations, ListDropsTheFolderItselfHoweverItIsSpelled) {
  for (const std::string own : {"/Home/Docs/", "/Home/Docs", "/Home/Docs//", "/Home/%44ocs"}) {
    network_.answer({.body = multistatus(response(own) + response("/Home/Docs/a") +
                                         response("/Home/Docs/b/") + response(own))});
    EXPECT_THAT(listed("/Home/Docs"), ElementsAre("/Home/Docs/a", "/Home/Docs/b")) << own;
  }
}

TEST_F(WebDAVClientOperations, ListAnswersEveryKnownCaseOfTheFoldersOwnEntry) {
  test::checkCases("string-equality", "list_self_filter", [this](const test::Case& one) {
    network_.answer({.body = multistatus(response(*one.input.member("entryPath")->string()))});
    const bool dropped = listed(*one.input.member("path")->string()).empty();
    return JSONValue(JSONValue::Object{{"dropped", dropped}});
  });
}

TEST_F(WebDAVClientOperations, ListKeepsTheServersOrderAndWhateverElseItReports) {
  network_.answer({.body = multistatus(response("/z") + response("/elsewhere/x") +
                                       response("https://127.0.0.1:8443/d/") + response("/a"))});
  EXPECT_THAT(listed("/d"), ElementsAre("/z", "/elsewhere/x", "https://127.0.0.1:8443/d", "/a"));
}

TEST_F(WebDAVClientOperations, ListOfTheWorkingSetAsksTheRootAndKeepsIt) {
  network_.answer({.body = multistatus(response("/") + response("/Home/"))});
  EXPECT_THAT(listed("NSFileProviderWorkingSetContainerItemIdentifier"), ElementsAre("/", "/Home"));
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /"));
}

TEST_F(WebDAVClientOperations, ListOfABodyThatIsNoXMLIsEmpty) {
  network_.answer({.status = 200, .body = "<html>Please log in<br></html>"});
  EXPECT_THAT(listed("/"), IsEmpty());
}

TEST_F(WebDAVClientOperations, ListOfATruncatedBodyKeepsWhatWasRead) {
  network_.answer({.body = "<m><response><href>/a</href></response><response><href>/b"});
  EXPECT_THAT(listed("/"), ElementsAre("/a"));
}

TEST_F(WebDAVClientOperations, AFailingStatusFailsTheListingWhateverItsBody) {
  network_.answer({.status = 500, .body = multistatus(response("/a"))});
  EXPECT_TRUE(failure([&] { return client_->list("/"); })->is(NSFileProviderErrorDomain, -1004));
  network_.answer({.status = 401, .body = multistatus(response("/a"))});
  EXPECT_TRUE(failure([&] { return client_->list("/"); })->is(NSFileProviderErrorDomain, -1000));
}

TEST_F(WebDAVClientOperations, ATransportErrorIsPassedOnUnchanged) {
  const NSError lost(NSURLErrorDomain, NSURLErrorNetworkConnectionLost, {{"k", "v"}});
  const NSURL file = NSURL::fileURLWithPath(temporary() + "/upload");
  std::ofstream(file.path()) << "x";
  const std::vector<std::function<std::optional<NSError>()>> operations = {
      [&] { return failure([&] { return client_->list("/"); }); },
      [&] { return failure([&] { return client_->stat("/"); }); },
      [&] { return failure([&] { return client_->download("/a"); }); },
      [&] { return failure([&] { return client_->put("/a", file); }); },
      [&] { return failure([&] { return client_->mkcol("/a"); }); },
      [&] { return failure([&] { return client_->delete_("/a"); }); },
      [&] { return failure([&] { return client_->move("/a", "/b"); }); },
  };
  for (const auto& operation : operations) {
    network_.answer({.error = lost});
    const auto error = operation();
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->isIdenticalTo(lost));
  }
}

TEST_F(WebDAVClientOperations, StatAsksForThePathAsItIsWithDepthZero) {
  network_.answer({.body = multistatus(response("/a.txt") + response("/b"))});
  const auto entry = resultOf(client_->stat("/a.txt"));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->path, "/a.txt");
  EXPECT_EQ(network_.requests().at(0).line, "PROPFIND https://127.0.0.1:8443/a.txt");
  EXPECT_THAT(network_.requests().at(0).headers, ElementsAre("Depth: 0"));
}

TEST_F(WebDAVClientOperations, StatOfAReplyWithoutAResponseIsAbsent) {
  network_.answer({.body = multistatus("")});
  EXPECT_EQ(resultOf(client_->stat("/a")), std::nullopt);
}

TEST_F(WebDAVClientOperations, StatOfAMissingResourceFailsWithItsStatus) {
  network_.answer({.status = 404});
  EXPECT_TRUE(failure([&] { return client_->stat("/a"); })->is(NSFileProviderErrorDomain, -1004));
}

TEST_F(WebDAVClientOperations, DownloadGivesAFileNamedByAUUIDAndTheLastComponent) {
  network_.answer({.status = 200, .body = "contents"});
  const NSURL file = resultOf(client_->download("/Home/a.txt"));
  EXPECT_EQ(readFile(file.path()), "contents");
  EXPECT_THAT(file.path(),
              ::testing::MatchesRegex(temporary() +
                                      "/[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                                      "[0-9A-F]{12}-a\\.txt"));
  EXPECT_EQ(temporaryFiles().size(), 1u);
  EXPECT_EQ(network_.requests().at(0).line, "GET https://127.0.0.1:8443/Home/a.txt");
  EXPECT_THAT(network_.requests().at(0).headers, IsEmpty());
}

TEST_F(WebDAVClientOperations, DownloadsOfLikeNamedFilesAreKeptApart) {
  network_.answer({.status = 200, .body = "1"});
  network_.answer({.status = 200, .body = "2"});
  const NSURL first = resultOf(client_->download("/A/x.txt"));
  const NSURL second = resultOf(client_->download("/B/x.txt"));
  EXPECT_NE(first, second);
  EXPECT_TRUE(first.path().ends_with("-x.txt"));
  EXPECT_TRUE(second.path().ends_with("-x.txt"));
}

TEST_F(WebDAVClientOperations, DownloadAnswersEveryKnownCaseOfItsName) {
  constexpr std::size_t kUUIDLength = 36;
  test::checkCases(
      "network", "download_name",
      [this](const test::Case& one) -> JSONValue {
        network_.answer({.status = 200});
        try {
          const NSURL file = resultOf(client_->download(*one.input.member("path")->string()));
          return "UUID" + file.path().substr(temporary().size() + 1 + kUUIDLength);
        } catch (const NSError& error) {
          return JSONValue::Object{
              {"error", JSONValue::Object{{"domain", error.domain()}, {"code", error.code()}}}};
        }
      },
      {{"network-069", "the root has no file name here: the move fails"}});
}

TEST_F(WebDAVClientOperations, AnOverlongNameKeepsItsEndAndItsExtension) {
  network_.answer({.status = 200, .body = "x"});
  std::string name;
  for (int i = 0; i < 120; ++i) name += "é";
  const NSURL file = resultOf(client_->download("/" + name + ".jpeg"));
  const std::string made = std::filesystem::path(file.path()).filename();
  EXPECT_LE(made.size(), 255u);
  EXPECT_GE(made.size(), 254u);
  EXPECT_TRUE(made.ends_with("éé.jpeg"));
  EXPECT_EQ(made.substr(37, 2), "é");
}

/// The process's own file manager, with a stale file at every destination of a move.
class StaleDestinations : public NSFileManager {
 public:
  explicit StaleDestinations(std::shared_ptr<NSFileManager> real) : real_(std::move(real)) {}

  std::optional<NSURL> containerURL(std::string_view group) override {
    return real_->containerURL(group);
  }
  NSURL temporaryDirectory() override { return real_->temporaryDirectory(); }
  NSData contents(const NSURL& at) override { return real_->contents(at); }
  bool createFile(const NSURL& at, std::string_view contents) override {
    return real_->createFile(at, contents);
  }
  void moveItem(const NSURL& at, const NSURL& to) override { real_->moveItem(at, to); }
  void removeItem(const NSURL& at) override {
    if (!std::filesystem::exists(at.path())) real_->createFile(at, "stale");
    removed.push_back(at.path());
    real_->removeItem(at);
  }
  std::optional<std::int64_t> fileSize(const NSURL& of) override { return real_->fileSize(of); }
  std::size_t maximumNameLength(const NSURL& directory) override {
    return real_->maximumNameLength(directory);
  }

  std::vector<std::string> removed;

 private:
  const std::shared_ptr<NSFileManager> real_;
};

TEST_F(WebDAVClientOperations, AStaleFileAtTheDestinationIsReplaced) {
  const auto real = NSFileManager::defaultManager();
  const auto stale = std::make_shared<StaleDestinations>(real);
  NSFileManager::setDefaultManager(stale);
  network_.answer({.status = 200, .body = "fresh"});
  const NSURL file = resultOf(client_->download("/a.txt"));
  NSFileManager::setDefaultManager(real);
  EXPECT_THAT(stale->removed, ElementsAre(file.path()));
  EXPECT_EQ(readFile(file.path()), "fresh");
}

TEST_F(WebDAVClientOperations, AFailedDownloadLeavesNoFile) {
  network_.answer({.status = 404, .body = "not here"});
  EXPECT_TRUE(
      failure([&] { return client_->download("/a"); })->is(NSFileProviderErrorDomain, -1004));
  EXPECT_THAT(temporaryFiles(), IsEmpty());
}

TEST_F(WebDAVClientOperations, ADownloadThatCannotBeMovedFailsWithTheFileSystemsError) {
  network_.answer({.status = 200, .body = "x"});
  const auto error = failure([&] { return client_->download("/"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_THAT(temporaryFiles(), IsEmpty());
}

TEST_F(WebDAVClientOperations, PutStreamsTheFileAndLeavesItAlone) {
  const NSURL file = NSURL::fileURLWithPath(temporary() + "/upload");
  std::ofstream(file.path()) << "body";
  network_.answer({.status = 204});
  resultOf(client_->put("/a b", file));
  EXPECT_EQ(network_.requests().at(0).line, "PUT https://127.0.0.1:8443/a%20b");
  EXPECT_THAT(network_.requests().at(0).headers, IsEmpty());
  EXPECT_EQ(network_.requests().at(0).body, "body");
  EXPECT_EQ(readFile(file.path()), "body");
}

TEST_F(WebDAVClientOperations, PutAnswered412FailsLikeAnyOtherStatus) {
  const NSURL file = NSURL::fileURLWithPath(temporary() + "/upload");
  std::ofstream(file.path()) << "body";
  network_.answer({.status = 412});
  EXPECT_TRUE(
      failure([&] { return client_->put("/a", file); })->is(NSFileProviderErrorDomain, -1004));
}

TEST_F(WebDAVClientOperations, MkcolAndDeleteSendThePathAsItIs) {
  network_.answer({.status = 201});
  network_.answer({.status = 204});
  resultOf(client_->mkcol("/new"));
  resultOf(client_->delete_("/new/"));
  EXPECT_THAT(network_.lines(), ElementsAre("MKCOL /new", "DELETE /new/"));
  EXPECT_THAT(network_.requests().at(0).headers, IsEmpty());
  EXPECT_THAT(network_.requests().at(1).headers, IsEmpty());
}

TEST_F(WebDAVClientOperations, MkcolAndDeleteFailWithTheirStatus) {
  network_.answer({.status = 405});
  network_.answer({.status = 401});
  EXPECT_TRUE(failure([&] { return client_->mkcol("/a"); })->is(NSFileProviderErrorDomain, -1004));
  EXPECT_TRUE(
      failure([&] { return client_->delete_("/a"); })->is(NSFileProviderErrorDomain, -1000));
}

TEST_F(WebDAVClientOperations, MoveNamesItsDestinationAndNeverOverwrites) {
  network_.answer({.status = 201});
  resultOf(client_->move("/a b", "/c#d"));
  EXPECT_EQ(network_.requests().at(0).line, "MOVE https://127.0.0.1:8443/a%20b");
  EXPECT_THAT(network_.requests().at(0).headers,
              ElementsAre("Destination: https://127.0.0.1:8443/c%23d", "Overwrite: F"));
}

TEST_F(WebDAVClientOperations, MoveOntoAnExistingNameIsAFileExistsError) {
  network_.answer({.status = 412});
  const auto error = failure([&] { return client_->move("/a", "/b"); });
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(NSCocoaErrorDomain, 516));
  EXPECT_TRUE(error->userInfo().empty());
}

TEST_F(WebDAVClientOperations, MoveAnsweredOtherwiseFailsWithItsStatus) {
  network_.answer({.status = 403});
  EXPECT_TRUE(
      failure([&] { return client_->move("/a", "/b"); })->is(NSFileProviderErrorDomain, -1004));
}

TEST_F(WebDAVClientOperations, ResponsesThatAreNotOfHTTPPass) {
  network_.answerWithoutHTTP();
  network_.answer({});
  resultOf(client_->move("/a", "/b"));
  EXPECT_EQ(network_.requests().size(), 1u);
}

TEST_F(WebDAVClientOperations, AnOperationKeepsItsClientAlive) {
  network_.answer({.body = multistatus(response("/a"))});
  auto client = WebDAVClient::make(FPBridge::Config{8443, "u", "p", ""}, std::nullopt);
  std::weak_ptr<WebDAVClient> observed = client;
  auto task = client->list("/");
  client.reset();
  EXPECT_FALSE(observed.expired());
  EXPECT_EQ(resultOf(std::move(task)).size(), 1u);
}

}  // namespace
}  // namespace kestrowan
