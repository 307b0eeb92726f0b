#include "platform/network/FinishedTransfers.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/foundation/NSXMLParser.h"

namespace kestrowan {
namespace {

using Clock = FinishedTransfers::Clock;
using std::chrono::seconds;

const Clock::time_point kStart{std::chrono::hours(1)};

std::shared_ptr<ReceivedBody> bodyThatIs(bool whole) {
  auto body = std::make_shared<ReceivedBody>();
  body->setWhole(whole);
  return body;
}

FinishedTransfer listing(const std::string& url, Clock::time_point at, bool whole,
                         std::int64_t status = 207) {
  return {"PROPFIND", url, status, at, bodyThatIs(whole)};
}

bool isDoubtful(const FinishedTransfers& transfers, const std::string& wanted,
                Clock::time_point since = kStart) {
  return transfers.hasDoubtful("PROPFIND", since,
                               [&](const std::string& url) { return url == wanted; });
}

TEST(FinishedTransfersTest, AnAnswerThatWasNotWholeIsFoundByItsPlaceAndTime) {
  FinishedTransfers transfers;
  transfers.add(listing("/a", kStart, true));
  transfers.add(listing("/b", kStart + seconds(5), false));
  EXPECT_FALSE(isDoubtful(transfers, "/a"));
  EXPECT_TRUE(isDoubtful(transfers, "/b"));
  EXPECT_TRUE(isDoubtful(transfers, "/b", kStart + seconds(5)));
  EXPECT_FALSE(isDoubtful(transfers, "/b", kStart + seconds(6)));
}

TEST(FinishedTransfersTest, AnAnswerThatNothingHasReadIsDoubtfulAndADiscardedOneIsNot) {
  FinishedTransfers transfers;
  transfers.add({"PROPFIND", "/a", 207, kStart, std::make_shared<ReceivedBody>()});
  transfers.add({"PROPFIND", "/b", 207, kStart, nullptr});
  EXPECT_TRUE(isDoubtful(transfers, "/a"));
  EXPECT_FALSE(isDoubtful(transfers, "/b"));
}

TEST(FinishedTransfersTest, AnswersThatSayNoAreNotDoubtful) {
  FinishedTransfers transfers;
  transfers.add(listing("/a", kStart, false, 404));
  EXPECT_FALSE(isDoubtful(transfers, "/a"));
}

TEST(FinishedTransfersTest, DoubtfulAnswersAreKeptLongest) {
  FinishedTransfers transfers;
  transfers.add(listing("/cut", kStart, false));
  for (std::size_t i = 0; i < 3 * FinishedTransfers::kMost; ++i) {
    transfers.add(listing("/a", kStart + seconds(1), true));
  }
  EXPECT_EQ(transfers.transfers().size(), FinishedTransfers::kMost);
  EXPECT_TRUE(isDoubtful(transfers, "/cut"));
  EXPECT_FALSE(isDoubtful(transfers, "/a"));
}

TEST(FinishedTransfersTest, WhatMayHaveBeenDroppedIsDoubtful) {
  FinishedTransfers transfers;
  for (std::size_t i = 0; i <= FinishedTransfers::kMost; ++i) {
    transfers.add(listing("/cut", kStart + seconds(i), false));
  }
  EXPECT_EQ(transfers.transfers().size(), FinishedTransfers::kMost);
  EXPECT_TRUE(isDoubtful(transfers, "/a"));
  EXPECT_FALSE(isDoubtful(transfers, "/a", kStart + seconds(1)));
}

TEST(FinishedTransfersTest, AnAnswerThatBrokeOffIsAFailureAndNotDoubtful) {
  FinishedTransfers transfers;
  auto broken = listing("/a", kStart, false);
  broken.errorCode = -1005;
  transfers.add(std::move(broken));
  EXPECT_FALSE(isDoubtful(transfers, "/a"));
}

TEST(FinishedTransfersTest, TheLatestRequestOfACallerIsFound) {
  FinishedTransfers transfers;
  const auto caller = std::make_shared<Abandonment>();
  const auto other = std::make_shared<Abandonment>();
  const auto add = [&](const std::string& url, const std::shared_ptr<Abandonment>& of) {
    transfers.add({.httpMethod = "PUT",
                   .url = url,
                   .finishedAt = kStart,
                   .body = nullptr,
                   .abandonment = of});
  };
  EXPECT_FALSE(transfers.latestOf(caller));
  add("/first", caller);
  add("/last", caller);
  add("/elsewhere", other);
  add("/unknown", nullptr);
  ASSERT_TRUE(transfers.latestOf(caller));
  EXPECT_EQ(transfers.latestOf(caller)->url, "/last");
  EXPECT_EQ(transfers.latestOf(other)->url, "/elsewhere");
  EXPECT_FALSE(transfers.latestOf(nullptr));
}

TEST(FinishedTransfersTest, AnObserverIsToldOfEachRequest) {
  FinishedTransfers transfers;
  std::string seen;
  transfers.add(listing("/before", kStart, true));
  transfers.setObserver([&](const FinishedTransfer& one) { seen += one.url; });
  transfers.add(listing("/a", kStart, true));
  transfers.add(listing("/b", kStart, true));
  transfers.setObserver({});
  transfers.add(listing("/after", kStart, true));
  EXPECT_EQ(seen, "/a/b");
  EXPECT_EQ(transfers.transfers().size(), 4u);
}

class Nobody : public NSXMLParserDelegate {
 public:
  void didStartElement(std::string_view) override {}
  void foundCharacters(std::string_view) override {}
  void didEndElement(std::string_view) override {}
};

bool saidWhole(const std::string& text) {
  const auto body = std::make_shared<ReceivedBody>();
  Nobody nobody;
  NSXMLParser parser(nobody);
  for (const char byte : text) {
    const ReceivedBody::Delivery delivery(body);
    parser.append({&byte, 1});
  }
  EXPECT_FALSE(body->isWhole());
  // The end is noted although nothing is delivered any more.
  parser.finish();
  return body->isWhole();
}

TEST(FinishedTransfersTest, TheParserNotesBesideTheTransferWhetherTheBodyWasWhole) {
  EXPECT_TRUE(saidWhole("<a><b/></a>"));
  EXPECT_FALSE(saidWhole("<a><b/>"));
  EXPECT_FALSE(saidWhole("<a><b></a>"));
  EXPECT_FALSE(saidWhole(""));
}

}  // namespace
}  // namespace kestrowan
