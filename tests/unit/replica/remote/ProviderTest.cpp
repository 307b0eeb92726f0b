#include "replica/remote/Provider.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "async/Scope.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/fileprovider/TemplateItem.h"
#include "support/InMemoryExtension.h"
#include "support/MemoryAnswers.h"
#include "support/RecordingLog.h"
#include "support/SimulatedLoop.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

using replica::remote::IdentifierForm;
using replica::remote::Provider;
using replica::remote::WrittenItem;

const std::string kRoot(NSFileProviderRootContainerItemIdentifier);

template <typename T>
Task<void> note(Task<T> call, std::shared_ptr<std::vector<std::string>> results) {
  std::string result = "done";
  try {
    co_await std::move(call);
  } catch (const NSError& error) {
    result = error.domain() + " " + std::to_string(error.code());
  }
  results->push_back(std::move(result));
}

class ProviderTest : public testing::Test {
 protected:
  ProviderTest() {
    server->makeFolder("/d");
    server->writeFile("/d/a", "x");
    calls.setExtension(extension);
  }

  /// What the call came to.
  template <typename T>
  std::string result(Task<T> call) {
    const auto results = std::make_shared<std::vector<std::string>>();
    scope.spawn(note(std::move(call), results));
    loop.advance(std::chrono::seconds(1));
    return results->empty() ? "no end" : results->front();
  }

  static NSFileProviderItemPtr wanted(const std::string& identifier, const std::string& parent,
                                      const std::string& name) {
    return std::make_shared<const TemplateItem>(TemplateItem::Values{.itemIdentifier = identifier,
                                                                     .parentItemIdentifier = parent,
                                                                     .filename = name,
                                                                     .contentType = std::nullopt});
  }

  Task<WrittenItem> create(NSFileProviderItemPtr wanted, NSFileProviderItemFields fields,
                           std::optional<std::string> contents,
                           NSFileProviderCreateItemOptions options) {
    auto taken = calls.turn(contents.has_value());
    auto turn = co_await std::move(taken);
    auto made = calls.create(std::move(turn), wanted, fields, contents, options);
    co_return co_await std::move(made);
  }
  Task<WrittenItem> modify(NSFileProviderItemPtr wanted, NSFileProviderItemVersion version,
                           NSFileProviderItemFields fields, std::optional<std::string> contents) {
    auto taken = calls.turn(contents.has_value());
    auto turn = co_await std::move(taken);
    auto made = calls.modify(std::move(turn), wanted, version, fields, contents);
    co_return co_await std::move(made);
  }
  Task<void> remove(NSFileProviderItemIdentifier identifier, NSFileProviderItemVersion version,
                    bool recursive) {
    auto taken = calls.turn(false);
    auto turn = co_await std::move(taken);
    auto made = calls.remove(std::move(turn), identifier, version, recursive);
    co_await std::move(made);
  }

  SimulatedLoop loop;
  TemporaryDirectory directory;
  std::shared_ptr<MemoryServer> server = std::make_shared<MemoryServer>();
  std::shared_ptr<InMemoryExtension> extension =
      std::make_shared<InMemoryExtension>(loop, directory.path(), server);
  async::Scope scope{loop};
  Provider calls{scope, {}, IdentifierForm::paths()};
};

TEST_F(ProviderTest, AnAmbiguousErrorIsReplacedByTheAnswerThatItComesFrom) {
  Provider told{
      scope, {}, IdentifierForm::paths(), [this] { return extension->answers().watch(); }};
  told.setExtension(extension);
  const auto fail = [this](Fault fault) {
    fault.effect = Fault::Effect::none;
    extension->setFaults([fault](const Call&) { return fault; });
  };
  fail({.httpStatus = 403});
  EXPECT_EQ(result(told.item("/d/a")), "KestrowanHTTPErrorDomain 403");
  EXPECT_EQ(result(calls.item("/d/a")), "NSFileProviderErrorDomain -1004");
  fail({.error = NSError(NSFileProviderErrorDomain, -1000), .httpStatus = 401});
  EXPECT_EQ(result(told.item("/d/a")), "NSFileProviderErrorDomain -1000");
  fail({.error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost)});
  EXPECT_EQ(result(told.item("/d/a")), "NSURLErrorDomain -1005");
  extension->setFaults({});
  EXPECT_EQ(result(told.item("/d/a")), "done");
}

TEST_F(ProviderTest, ProperItemsAreAskedFor) {
  EXPECT_EQ(result(calls.list(kRoot)), "done");
  EXPECT_EQ(result(calls.list("/d")), "done");
  EXPECT_EQ(result(calls.item("/d/a")), "done");
  EXPECT_EQ(result(calls.fetch("/d/a", 1)), "done");
  EXPECT_EQ(result(create(wanted("new:1", "/d", "b"), 0, std::nullopt, 0)), "done");
  EXPECT_EQ(result(modify(
                wanted("/d/b", kRoot, "c"), {},
                NSFileProviderItemField::filename | NSFileProviderItemField::parentItemIdentifier,
                std::nullopt)),
            "done");
  EXPECT_EQ(result(remove("/c", {}, false)), "done");
  EXPECT_EQ(server->tree().size(), 2u);
}

TEST_F(ProviderTest, NothingElseReachesTheProvider) {
  const RecordingLog log;
  const std::string refused = std::string(NSPOSIXErrorDomain) + " " + std::to_string(EIO);
  const auto before = server->tree();
  std::size_t count = 0;
  for (const std::string& identifier :
       {std::string("/"), std::string(), std::string("d"), std::string("/d/../.."),
        std::string("/d/."), std::string("//d/a"), std::string("/d//a"), std::string("/d/a/"),
        std::string("https://127.0.0.1/d"), std::string("/d/a\0", 5),
        "/" + std::string(256, 'x')}) {
    EXPECT_EQ(result(calls.list(identifier)), refused) << identifier;
    EXPECT_EQ(result(calls.item(identifier)), refused) << identifier;
    EXPECT_EQ(result(calls.fetch(identifier, 1)), refused) << identifier;
    EXPECT_EQ(result(remove(identifier, {}, true)), refused) << identifier;
    EXPECT_EQ(result(create(wanted("new:1", identifier, "b"), 0, std::nullopt, 0)), refused)
        << identifier;
    EXPECT_EQ(result(modify(wanted(identifier, "/d", "a"), {}, 0, std::nullopt)), refused)
        << identifier;
    EXPECT_EQ(result(modify(wanted("/d/a", identifier, "a"), {}, 0, std::nullopt)), refused)
        << identifier;
    count += 7;
  }
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"),
        std::string("a\0", 2), std::string(256, 'x')}) {
    EXPECT_EQ(result(create(wanted("new:1", "/d", name), 0, std::nullopt, 0)), refused);
    EXPECT_EQ(result(modify(wanted("/d/a", "/d", name), {}, 0, std::nullopt)), refused);
    count += 2;
  }
  EXPECT_EQ(extension->count(), 0u);
  EXPECT_EQ(server->tree(), before);
  EXPECT_EQ(log.lines().size(), count);
}

TEST_F(ProviderTest, TheRootIsOnlyLookedAt) {
  const RecordingLog log;
  const std::string refused = std::string(NSPOSIXErrorDomain) + " " + std::to_string(EIO);
  EXPECT_EQ(result(calls.fetch(kRoot, 1)), refused);
  EXPECT_EQ(result(remove(kRoot, {}, true)), refused);
  EXPECT_EQ(result(modify(wanted(kRoot, kRoot, "other"), {}, NSFileProviderItemField::filename,
                          std::nullopt)),
            refused);
  EXPECT_EQ(extension->count(), 0u);
}

}  // namespace
}  // namespace kestrowan::test
