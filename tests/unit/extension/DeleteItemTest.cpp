#include <gmock/gmock.h>

#include "Completions.h"

namespace kestrowan {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DeleteItem : public test::RequestFixture {
 protected:
  test::Completion deleted(const std::string& identifier,
                           NSFileProviderDeleteItemOptions options = 0) {
    auto extension = makeExtension();
    test::CompletionWaiter waiter;
    return waiter.wait(extension.deleteItem(identifier, {}, options, {}, waiter.forDelete()));
  }
};

TEST_F(DeleteItem, IsOneRequestWhateverTheOptions) {
  configure();
  for (const NSFileProviderDeleteItemOptions options :
       {NSFileProviderDeleteItemOptions{0}, NSFileProviderDeleteItemOption::recursive}) {
    network_.answer({.status = 204});
    const auto result = deleted("/Home/Docs/", options);
    EXPECT_FALSE(result.error);
    EXPECT_FALSE(result.synchronous);
    expectPlainProgress(result);
  }
  EXPECT_THAT(network_.lines(), ElementsAre("DELETE /Home/Docs", "DELETE /Home/Docs"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(DeleteItem, WithoutAClientIsRefusedFirst) {
  const auto result = deleted("/Home/Apps");
  expectRefused(result, notAuthenticated());
  expectPlainProgress(result);
}

TEST_F(DeleteItem, ProtectedPathsAreRefusedAtOnce) {
  configure();
  for (const auto path : {"/Home/Apps", "/Home/.Trash/x", "/Home//Caches/"}) {
    const auto result = deleted(path);
    expectRefused(result, FileProviderExtension::permDenied());
    EXPECT_TRUE(result.error->isIdenticalTo(FileProviderExtension::permDenied()));
    expectPlainProgress(result);
  }
  EXPECT_THAT(network_.requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(DeleteItem, AFailureIsLoggedAndHandedOn) {
  configure();
  network_.answer({.status = 404});
  const auto result = deleted("/a");
  EXPECT_TRUE(result.error->is(NSFileProviderErrorDomain, -1004));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("deleteItem /a failed: " +
                                                result.error->localizedDescription())));
}

TEST_F(DeleteItem, TheRootIdentifierMeansTheServersRoot) {
  configure();
  network_.answer({.status = 403});
  EXPECT_TRUE(deleted(root_).error);
  EXPECT_THAT(network_.lines(), ElementsAre("DELETE /"));
}

}  // namespace
}  // namespace kestrowan
