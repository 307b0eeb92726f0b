#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "InMemoryExtensionSupport.h"

namespace kestrowan::test {
namespace {

namespace Field = NSFileProviderItemField;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

/// What goes wrong with a provider in memory when the test wants it.
class InMemoryFaultsTest : public InMemoryExtensionFixture {};

TEST_F(InMemoryFaultsTest, TheEffectAndTheAnswerComeAfterTheLatency) {
  extension_->setLatency(milliseconds(100));
  const auto result = create(kRoot, "a", "");
  loop_.advance(milliseconds(99));
  EXPECT_EQ(result->completions, 0);
  EXPECT_THAT(server_->tree(), IsEmpty());
  loop_.advance(milliseconds(1));
  EXPECT_TRUE(result->succeeded());
  EXPECT_EQ(server_->read("/a"), "");
}

TEST_F(InMemoryFaultsTest, CountsCallsOfAKindAtTheSameTime) {
  extension_->setLatency(milliseconds(10));
  for (int i = 0; i < 3; ++i) list(kRoot);
  loop_.advance(milliseconds(5));
  lookUp("/a");
  loop_.advance(milliseconds(20));
  list(kRoot);
  EXPECT_EQ(extension_->mostAtOnce(CallKind::enumerateItems), 3u);
  EXPECT_EQ(extension_->mostAtOnce(CallKind::item), 1u);
  EXPECT_EQ(extension_->mostAtOnce(CallKind::deleteItem), 0u);
  EXPECT_EQ(extension_->running(), 1u);
}

TEST_F(InMemoryFaultsTest, WhenItIsDownNothingHappens) {
  server_->writeFile("/a", "");
  extension_->setDown(true);
  for (const auto& result : {list(kRoot), lookUp("/a"), fetch("/a"), create(kRoot, "b", ""),
                             modify("/a", kRoot, "c", Field::filename), remove("/a")}) {
    EXPECT_TRUE(done(result)->failed(NSURLErrorDomain, NSURLErrorCannotConnectToHost));
  }
  EXPECT_THAT(server_->tree(), ElementsAre(Pair("/a", "")));
  extension_->setDown(false);
  EXPECT_TRUE(done(remove("/a"))->succeeded());
}

TEST_F(InMemoryFaultsTest, ACallCanFailBeforeOrAfterItsEffect) {
  const NSError lost(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
  failNext({.effect = Fault::Effect::none, .error = lost});
  EXPECT_TRUE(done(create(kRoot, "a", ""))->failed(NSURLErrorDomain, -1005));
  EXPECT_THAT(server_->tree(), IsEmpty());
  failNext({.error = lost});
  EXPECT_TRUE(done(create(kRoot, "a", ""))->failed(NSURLErrorDomain, -1005));
  EXPECT_THAT(server_->tree(), ElementsAre(Pair("/a", "")));
  EXPECT_TRUE(done(create(kRoot, "b", ""))->succeeded());
}

TEST_F(InMemoryFaultsTest, ACallCanFailBetweenItsRequests) {
  server_->writeFile("/a", "before");
  failNext({.effect = Fault::Effect::firstRequest});
  const auto result =
      done(modify("/a", kRoot, "b", Field::filename | Field::contents, localFile("after")));
  EXPECT_TRUE(result->failed(NSURLErrorDomain, NSURLErrorTimedOut));
  EXPECT_EQ(result->item, nullptr);
  EXPECT_THAT(server_->tree(), ElementsAre(Pair("/b", "before")));
}

TEST_F(InMemoryFaultsTest, SomebodyElseCanComeBetweenTheRequests) {
  server_->writeFile("/a", "one");
  failNext({.afterFirstRequest = [&] { server_->writeFile("/a", "three"); }});
  const auto result = done(fetch("/a"));
  EXPECT_EQ(readFile(result->file->path()), "one");
  EXPECT_EQ(result->item->documentSize(), 5);
}

TEST_F(InMemoryFaultsTest, ACallHangsUntilItIsReleased) {
  failNext({.hangs = true});
  const auto withEffect = create(kRoot, "a", "");
  failNext({.effect = Fault::Effect::none, .hangs = true});
  const auto without = create(kRoot, "b", "");
  loop_.advance(std::chrono::hours(1));
  EXPECT_EQ(withEffect->completions + without->completions, 0);
  EXPECT_EQ(extension_->running(), 2u);
  EXPECT_THAT(server_->tree(), ElementsAre(Pair("/a", "")));
  EXPECT_EQ(extension_->releaseHung(), 2u);
  EXPECT_EQ(withEffect->completions, 0);
  loop_.runUntilIdle();
  EXPECT_TRUE(withEffect->succeeded());
  EXPECT_TRUE(without->failed(NSURLErrorDomain, NSURLErrorTimedOut));
  EXPECT_EQ(extension_->releaseHung(), 0u);
}

TEST_F(InMemoryFaultsTest, AFaultCanBeLate) {
  failNext({.delay = milliseconds(500)});
  const auto slow = lookUp(kRoot);
  const auto fast = lookUp(kRoot);
  loop_.advance(milliseconds(499));
  EXPECT_EQ(slow->completions, 0);
  EXPECT_EQ(fast->completions, 1);
  loop_.advance(milliseconds(1));
  EXPECT_EQ(slow->completions, 1);
}

TEST_F(InMemoryFaultsTest, ListingsCanBeCutEmptiedAndSpoilt) {
  for (const auto* path : {"/a", "/b", "/c"}) server_->writeFile(path, "");
  failNext({.entries = 2});
  EXPECT_THAT(identifiers(done(list(kRoot))->items), ElementsAre("/a", "/b"));
  failNext({.entries = 0});
  EXPECT_THAT(identifiers(done(list(kRoot))->items), IsEmpty());
  auto odd = itemOf("opaquelocktoken:1", kRoot, "../x", false);
  odd->size = -5;
  failNext({.moreEntries = {odd}});
  const auto result = done(list(kRoot));
  EXPECT_THAT(identifiers(result->items), ElementsAre("/a", "/b", "/c", "opaquelocktoken:1"));
  EXPECT_EQ(result->items[3]->documentSize(), -5);
}

TEST_F(InMemoryFaultsTest, AFetchedFileCanBeShort) {
  server_->writeFile("/a", "contents");
  failNext({.fileSize = 3});
  const auto result = done(fetch("/a"));
  EXPECT_EQ(readFile(result->file->path()), "con");
  EXPECT_EQ(result->item->documentSize(), 8);
}

TEST_F(InMemoryFaultsTest, AnAnswerWithoutAnEntryGivesAWordForTheVersion) {
  const auto version = [&](const ResultPtr& result) {
    return done(result)->item->itemVersion().contentVersion;
  };
  const Fault bare{.withoutEntry = true};
  failNext(bare);
  EXPECT_EQ(version(create(kRoot, "a", "12345")), "new|0|0");
  failNext(bare);
  EXPECT_EQ(version(modify("/a", kRoot, "b", Field::filename)), "modified|0|0");
  failNext(bare);
  EXPECT_EQ(version(fetch("/b")), "downloaded|0|5");
  failNext(bare);
  EXPECT_TRUE(done(lookUp("/b"))->failed(NSFileProviderErrorDomain, -1005));
}

TEST_F(InMemoryFaultsTest, NoticesContentsThatChangeWhileTheyAreSent) {
  extension_->setLatency(milliseconds(10));
  const auto file = localFile("before");
  const auto result = modify("/a", kRoot, "a", Field::contents, file);
  std::ofstream(file.path()) << "after";
  loop_.advance(milliseconds(10));
  EXPECT_TRUE(result->succeeded());
  EXPECT_THAT(extension_->violations(), ElementsAre("modifyItem /a: contents changed"));
}

TEST_F(InMemoryFaultsTest, ContentsThatAreNotThereFail) {
  const auto absent = NSURL::fileURLWithPath(directory_.path() + "/absent");
  EXPECT_TRUE(done(modify("/a", kRoot, "a", Field::contents, absent))
                  ->failed(NSURLErrorDomain, NSURLErrorFileDoesNotExist));
  EXPECT_THAT(extension_->violations(), IsEmpty());
}

}  // namespace
}  // namespace kestrowan::test
