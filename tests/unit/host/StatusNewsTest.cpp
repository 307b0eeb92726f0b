#include "host/StatusNews.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrowan::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(StatusNews, NothingSpecialIsNoNews) {
  StatusNews news;
  EXPECT_THAT(news.of({}), IsEmpty());
}

TEST(StatusNews, TheServersGoingAndComingIsSaidOnce) {
  StatusNews news;
  replica::Status status;
  status.offline = true;
  EXPECT_THAT(news.of(status), ElementsAre(HasSubstr("cannot be reached")));
  EXPECT_THAT(news.of(status), IsEmpty());
  status.offline = false;
  EXPECT_THAT(news.of(status), ElementsAre(HasSubstr("can be reached again")));
}

TEST(StatusNews, TheServersSilenceIsSaidOnce) {
  StatusNews news;
  replica::Status status;
  status.silence = std::chrono::seconds(7);
  EXPECT_THAT(news.of(status), ElementsAre("the server is silent: no answer for 7 s"));
  status.silence = std::chrono::seconds(17);
  EXPECT_THAT(news.of(status), IsEmpty());
  status.silence.reset();
  EXPECT_THAT(news.of(status), ElementsAre("the server is silent no more"));
}

TEST(StatusNews, WhatHoldsEverythingUpIsSaidWithItsReason) {
  StatusNews news;
  replica::Status status;
  status.held = "wrong password";
  EXPECT_THAT(news.of(status), ElementsAre(HasSubstr("wrong password")));
  EXPECT_THAT(news.of(status), IsEmpty());
  status.held = "wrong certificate";
  EXPECT_THAT(news.of(status), ElementsAre(HasSubstr("wrong certificate")));
  status.held.reset();
  EXPECT_THAT(news.of(status), ElementsAre(HasSubstr("works again")));
}

TEST(StatusNews, EachConflictIsSaidOnce) {
  StatusNews news;
  replica::Status status;
  status.conflicts = {{"/a (conflict)", "/a"}};
  EXPECT_THAT(news.of(status), ElementsAre(HasSubstr("/a (conflict)")));
  status.conflicts.push_back({"/b (conflict)", ""});
  EXPECT_THAT(news.of(status), ElementsAre(HasSubstr("/b (conflict)")));
}

TEST(StatusNews, ARefusedChangeIsSaidEachTimeItIsRefused) {
  StatusNews news;
  replica::Status refused;
  refused.pending = {{.path = "/a",
                      .state = replica::SyncState::refused,
                      .changes = "create",
                      .failure = replica::SyncFailure{.text = "not permitted"}},
                     {.path = "/b", .state = replica::SyncState::retrying}};
  EXPECT_THAT(news.of(refused), ElementsAre("refused: /a (create): not permitted"));
  EXPECT_THAT(news.of(refused), IsEmpty());
  EXPECT_THAT(news.of({}), IsEmpty());
  EXPECT_THAT(news.of(refused), ElementsAre(HasSubstr("/a")));
}

}  // namespace
}  // namespace kestrowan::host
