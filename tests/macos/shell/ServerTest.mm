#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "ShellTest.h"
#include "macos/FPItem.h"
#include "support/ScriptedServer.h"

namespace {

using namespace kestrowan::test;

constexpr const char* kDate = "Tue, 15 Nov 1994 08:12:31 GMT";

std::string response(const std::string& href, const std::string& properties) {
  return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop>" + properties +
         "</D:prop></D:propstat></D:response>";
}

std::string file(const std::string& href, int size) {
  return response(href, "<D:resourcetype/><D:getcontentlength>" + std::to_string(size) +
                            "</D:getcontentlength><D:getetag>\"abc\"</D:getetag>"
                            "<D:getlastmodified>" +
                            kDate + "</D:getlastmodified>");
}

std::string folder(const std::string& href) {
  return response(href, "<D:resourcetype><D:collection/></D:resourcetype>");
}

/// An answer of the script.
kestrowan::JSONValue answer(int status, const std::string& body = {}) {
  return kestrowan::JSONValue::Object{{"status", status}, {"body", body}};
}

kestrowan::JSONValue multistatus(const std::string& responses) {
  return answer(207, "<D:multistatus xmlns:D=\"DAV:\">" + responses + "</D:multistatus>");
}

/// The whole road from the Objective-C entry points to a server that does as it is told.
class ServerTest : public ShellTest {
 protected:
  ServerTest() { writeBridge(server.port(), server.pinnedDER()); }

  void script(kestrowan::JSONValue::Array responses) {
    server.replaceScript(
        kestrowan::JSONValue(kestrowan::JSONValue::Object{{"responses", std::move(responses)}})
            .serialized());
  }

  std::vector<std::string> asked() {
    std::vector<std::string> lines;
    for (const auto& request : server.requests()) {
      lines.push_back(request.method + " " + request.target);
    }
    return lines;
  }

  ScriptedServer server;
};

TEST_F(ServerTest, ListingArrivesAsOnePageAndEnds) {
  script({multistatus(folder("/Home/") + file("/Home/b%20%C3%BC.txt", 12) + folder("/Home/a/"))});
  const auto listings = std::make_shared<Calls<Listing>>();
  list(extension(), "/Home", listings);
  const auto listing = listings->only();
  EXPECT_EQ(described(listing.error), "none");
  EXPECT_FALSE(listing.hasNextPage);
  ASSERT_EQ(listing.batches.size(), 1u);
  ASSERT_EQ(listing.batches[0].size(), 2u);
  id<NSFileProviderItem> first = listing.batches[0][0].get();
  EXPECT_EQ(utf8([first itemIdentifier]), "/Home/b ü.txt");
  EXPECT_EQ(utf8([first parentItemIdentifier]), "/Home");
  EXPECT_EQ(utf8([first filename]), "b ü.txt");
  EXPECT_EQ(utf8([[first contentType] identifier]), "public.plain-text");
  EXPECT_EQ([first capabilities], 43u);
  EXPECT_EQ([[first documentSize] longLongValue], 12);
  EXPECT_EQ([[first contentModificationDate] timeIntervalSince1970], 784887151.0);
  EXPECT_EQ(bytesOf([[first itemVersion] contentVersion]), "abc|784887151|12");
  EXPECT_EQ(bytesOf([[first itemVersion] metadataVersion]), "abc|784887151|12");
  EXPECT_EQ([listing.batches[0][1].get() contentType], UTTypeFolder);
  EXPECT_EQ(asked(), std::vector<std::string>{"PROPFIND /Home/"});
  EXPECT_NE(listings->thread(), std::this_thread::get_id());
}

TEST_F(ServerTest, EmptyFolderIsOnePageWithoutItems) {
  script({multistatus(folder("/Empty/"))});
  const auto listings = std::make_shared<Calls<Listing>>();
  list(extension(), "/Empty", listings);
  ASSERT_EQ(listings->only().batches.size(), 1u);
  EXPECT_EQ(listings->only().batches[0].size(), 0u);
  EXPECT_FALSE(listings->only().hasNextPage);
}

TEST_F(ServerTest, FailedListingIsLoggedAndPassedOn) {
  script({answer(500)});
  const auto listings = std::make_shared<Calls<Listing>>();
  list(extension(), "/Home", listings);
  EXPECT_EQ(described(listings->only().error), "NSFileProviderErrorDomain -1004");
  const auto messages = takeLogMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].format, "enumerate %{public}s failed: %{public}s");
  EXPECT_EQ(messages[0].arguments.at(0), "/Home");
}

TEST_F(ServerTest, LookupGivesTheServersItem) {
  script({multistatus(file("/Home/a.txt", 5)), multistatus(""), answer(404), answer(401)});
  FileProviderExtension* const made = extension();
  const std::vector<std::string> errors = {"none", "NSFileProviderErrorDomain -1005",
                                           "NSFileProviderErrorDomain -1004",
                                           "NSFileProviderErrorDomain -1000"};
  for (const auto& error : errors) {
    const auto calls = std::make_shared<Calls<ItemCall>>();
    NSProgress* const progress = look(made, "/Home/a.txt", calls);
    EXPECT_EQ(described(calls->only().error), error);
    EXPECT_EQ(calls->only().item.get() != nil, error == "none");
    EXPECT_EQ([progress totalUnitCount], 0);
  }
  EXPECT_EQ(takeLogMessages().size(), 0u);
}

TEST_F(ServerTest, FetchDeliversTheFileAndFullProgress) {
  script({kestrowan::JSONValue::Object{{"body", "hello"}, {"holdFor", "go"}},
          multistatus(file("/Home/a.txt", 5))});
  const auto calls = std::make_shared<Calls<FetchCall>>();
  const auto shown = std::make_shared<std::atomic<void*>>(nullptr);
  *shown = [extension()
      fetchContentsForItemWithIdentifier:@"/Home/a.txt"
                                 version:version("any", "any")
                                 request:request()
                       completionHandler:^(NSURL* url, id<NSFileProviderItem> item,
                                           NSError* error) {
                         calls->add({Retained<NSURL*>(url), Retained<id<NSFileProviderItem>>(item),
                                     Retained<NSError*>(error),
                                     [(NSProgress*)shown->load() completedUnitCount]});
                       }];
  server.waitForRequests(1);
  EXPECT_EQ([(NSProgress*)shown->load() totalUnitCount], 100);
  EXPECT_EQ([(NSProgress*)shown->load() completedUnitCount], 0);
  EXPECT_EQ(calls->count(), 0u);
  server.release("go");
  const auto call = calls->only();
  EXPECT_EQ(described(call.error), "none");
  EXPECT_EQ(call.completedUnitCount, 100);
  EXPECT_EQ([(NSProgress*)shown->load() completedUnitCount], 100);
  EXPECT_TRUE([call.url.get() isFileURL]);
  EXPECT_EQ(contentsOf(utf8([call.url.get() path])), "hello");
  EXPECT_EQ(utf8([call.url.get() path]).rfind(temporary() + "/", 0), 0u);
  EXPECT_EQ(utf8([call.item.get() itemIdentifier]), "/Home/a.txt");
  EXPECT_EQ([[call.item.get() documentSize] longLongValue], 5);
  EXPECT_EQ(asked(), (std::vector<std::string>{"GET /Home/a.txt", "PROPFIND /Home/a.txt"}));
}

TEST_F(ServerTest, FailedFetchLeavesProgressEmptyAndNoFile) {
  script({answer(404)});
  const auto calls = std::make_shared<Calls<FetchCall>>();
  NSProgress* const progress = fetch(extension(), "/Home/a.txt", calls);
  EXPECT_EQ(described(calls->only().error), "NSFileProviderErrorDomain -1004");
  EXPECT_FALSE(calls->only().url.get());
  EXPECT_EQ([progress totalUnitCount], 100);
  EXPECT_EQ([progress completedUnitCount], 0);
  EXPECT_TRUE(eventually([this] { return temporaryFiles().empty(); }));
}

TEST_F(ServerTest, CreationUploadsAFile) {
  script({answer(201), multistatus(file("/Home/new.txt", 7))});
  const auto calls = std::make_shared<Calls<WriteCall>>();
  create(extension(), full("/t", "/Home", "new.txt", UTTypeData),
         fileURL(fileWith("body ü", "content")), calls);
  const auto call = calls->only();
  EXPECT_EQ(described(call.error), "none");
  EXPECT_EQ(call.remainingFields, 0u);
  EXPECT_FALSE(call.shouldFetchContent);
  EXPECT_EQ(utf8([call.item.get() itemIdentifier]), "/Home/new.txt");
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method + " " + requests[0].target, "PUT /Home/new.txt");
  EXPECT_EQ(requests[0].bodyLength, 7);
  EXPECT_NE(requests[0].raw.find("\r\n\r\ncontent"), std::string::npos);
  EXPECT_EQ(requests[1].method, "PROPFIND");
}

TEST_F(ServerTest, CreationWithoutATypeOrContentsUploadsAnEmptyFile) {
  script({answer(201), multistatus("")});
  const auto calls = std::make_shared<Calls<WriteCall>>();
  create(extension(), plain("/t", "NSFileProviderRootContainerItemIdentifier", "new"), nil, calls);
  const auto call = calls->only();
  EXPECT_EQ(described(call.error), "none");
  EXPECT_EQ(bytesOf([[call.item.get() itemVersion] contentVersion]), "new|0|0");
  const auto requests = server.requests();
  EXPECT_EQ(requests[0].method + " " + requests[0].target, "PUT /new");
  EXPECT_EQ(requests[0].bodyLength, 0);
  EXPECT_EQ(temporaryFiles().size(), 1u);
}

TEST_F(ServerTest, CreationOfAFolderMakesACollection) {
  script({answer(201), multistatus(folder("/Home/new/"))});
  const auto calls = std::make_shared<Calls<WriteCall>>();
  create(extension(), full("/t", "/Home", "new", UTTypeFolder), fileURL(fileWith("ignored", "x")),
         calls);
  EXPECT_EQ(described(calls->only().error), "none");
  EXPECT_EQ([calls->only().item.get() contentType], UTTypeFolder);
  EXPECT_EQ(asked(), (std::vector<std::string>{"MKCOL /Home/new", "PROPFIND /Home/new"}));
}

TEST_F(ServerTest, PackageTypeIsNoFolder) {
  script({answer(201), multistatus("")});
  const auto calls = std::make_shared<Calls<WriteCall>>();
  UTType* const package = [UTType typeWithFilenameExtension:@"pdf" conformingToType:UTTypeData];
  create(extension(), full("/t", "/Home", "a.pdf", package), nil, calls);
  EXPECT_EQ(described(calls->only().error), "none");
  EXPECT_EQ(asked().at(0), "PUT /Home/a.pdf");
}

TEST_F(ServerTest, ModificationMovesThenUploadsThenAsks) {
  script({answer(201), answer(204), multistatus(file("/Home/b", 3))});
  const auto calls = std::make_shared<Calls<WriteCall>>();
  modify(extension(), plain("/Home/a", "/Home", "b"), 3, fileURL(fileWith("body", "new")), calls);
  EXPECT_EQ(described(calls->only().error), "none");
  EXPECT_EQ(utf8([calls->only().item.get() itemIdentifier]), "/Home/b");
  EXPECT_EQ(asked(), (std::vector<std::string>{"MOVE /Home/a", "PUT /Home/b", "PROPFIND /Home/b"}));
}

TEST_F(ServerTest, ModificationOfOtherFieldsOnlyAsks) {
  script({multistatus("")});
  const auto calls = std::make_shared<Calls<WriteCall>>();
  modify(extension(), plain("/Home/a", "/Home", "a"), 128 | 16, nil, calls);
  EXPECT_EQ(described(calls->only().error), "none");
  EXPECT_EQ(bytesOf([[calls->only().item.get() itemVersion] contentVersion]), "modified|0|0");
  EXPECT_EQ(asked(), std::vector<std::string>{"PROPFIND /Home/a"});
}

TEST_F(ServerTest, MoveOntoAnExistingItemFailsAsTheFileSystemWould) {
  script({answer(412)});
  const auto calls = std::make_shared<Calls<WriteCall>>();
  modify(extension(), plain("/Home/a", "/Home", "b"), 2, nil, calls);
  EXPECT_EQ(described(calls->only().error), "NSCocoaErrorDomain 516");
  EXPECT_FALSE(calls->only().item.get());
  const auto messages = takeLogMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].format, "modifyItem %{public}s failed: %{public}s");
}

TEST_F(ServerTest, DeletionSendsOneRequest) {
  script({answer(204), answer(423)});
  FileProviderExtension* const made = extension();
  for (const char* error : {"none", "NSFileProviderErrorDomain -1004"}) {
    const auto calls = std::make_shared<Calls<DeleteCall>>();
    remove(made, "/Home/folder", calls);
    EXPECT_EQ(described(calls->only().error), error);
  }
  EXPECT_EQ(asked(), (std::vector<std::string>(2, "DELETE /Home/folder")));
  const auto messages = takeLogMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].format, "deleteItem %{public}s failed: %{public}s");
}

TEST_F(ServerTest, UnpinnedServerIsRefusedBeforeAnythingIsSent) {
  writeBridge(server.port(), server.otherDER());
  const auto calls = std::make_shared<Calls<ItemCall>>();
  look(extension(), "/Home", calls);
  EXPECT_EQ(described(calls->only().error), "NSURLErrorDomain -999");
  EXPECT_EQ(asked(), std::vector<std::string>());
  const auto messages = takeLogMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].format, "cert pin mismatch — refusing loopback connection");
}

TEST_F(ServerTest, RequestInFlightOutlivesItsExtension) {
  script({kestrowan::JSONValue::Object{{"status", 204}, {"holdFor", "go"}}});
  const auto calls = std::make_shared<Calls<DeleteCall>>();
  @autoreleasepool {
    remove(extension(), "/Home/a", calls);
  }
  server.waitForRequests(1);
  EXPECT_EQ(live([FileProviderExtension class]), 0);
  server.release("go");
  EXPECT_EQ(described(calls->only().error), "none");
}

TEST_F(ServerTest, RequestsFromManyThreadsAreEachAnsweredOnce) {
  script({multistatus(file("/Home/a.txt", 5))});
  FileProviderExtension* const made = extension();
  constexpr int kThreads = 8;
  std::vector<ItemCalls> calls;
  for (int i = 0; i < kThreads; ++i) calls.push_back(std::make_shared<Calls<ItemCall>>());
  std::vector<std::thread> threads;
  for (const auto& one : calls) {
    threads.emplace_back([made, one] {
      @autoreleasepool {
        look(made, "/Home/a.txt", one);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& one : calls) EXPECT_EQ(described(one->only().error), "none");
  EXPECT_EQ(server.requests().size(), std::size_t(kThreads));
}

}  // namespace
