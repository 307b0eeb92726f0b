#include "host/FinishedRequests.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/network/FinishedTransfers.h"

namespace kestrowan::host {
namespace {

void finish(const std::shared_ptr<Abandonment>& call, const std::string& method,
            std::int64_t httpStatus) {
  FinishedTransfers::shared().add({.httpMethod = method,
                                   .url = "https://127.0.0.1:1/Home/a",
                                   .httpStatus = httpStatus,
                                   .finishedAt = FinishedTransfers::Clock::now(),
                                   .body = nullptr,
                                   .abandonment = call});
}

TEST(FinishedRequests, ACallIsToldOfTheLastOfItsOwnAnswers) {
  const auto call = std::make_shared<Abandonment>();
  std::shared_ptr<const replica::remote::CallAnswers> answers;
  {
    const AbandonmentScope scope(call);
    answers = watchAnswers();
  }
  EXPECT_FALSE(answers->last());
  finish(call, "MOVE", 201);
  finish(call, "PUT", 403);
  finish(std::make_shared<Abandonment>(), "PUT", 507);
  finish(nullptr, "PUT", 507);
  const auto answer = answers->last();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->request, "PUT");
  EXPECT_EQ(answer->httpStatus, 403);
  EXPECT_TRUE(answer->isChange);
}

TEST(FinishedRequests, OnlyRequestsThatChangeSomethingAreChanges) {
  for (const std::string method : {"PUT", "MKCOL", "MOVE", "DELETE", "GET", "PROPFIND"}) {
    const auto call = std::make_shared<Abandonment>();
    finish(call, method, 403);
    EXPECT_EQ(answerTo(call)->isChange, method != "GET" && method != "PROPFIND") << method;
  }
}

TEST(FinishedRequests, ARequestWithoutAnAnswerTellsNothing) {
  const auto call = std::make_shared<Abandonment>();
  finish(call, "PUT", 403);
  finish(call, "PUT", 0);
  EXPECT_FALSE(answerTo(call));
  EXPECT_FALSE(answerTo(nullptr));
}

}  // namespace
}  // namespace kestrowan::host
