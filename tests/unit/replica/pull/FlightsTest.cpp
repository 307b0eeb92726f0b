#include "replica/pull/Flights.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "GrowingContents.h"
#include "async/Scope.h"
#include "support/SimulatedLoop.h"

namespace kestrowan::replica::pull {
namespace {

using model::ItemNumber;
using remote::ArrivingContents;
using test::GrowingContents;

constexpr std::int64_t kMiB = 1 << 20;
constexpr ItemNumber kFilm{2};
constexpr ItemNumber kSong{3};

class FlightsTest : public testing::Test {
 protected:
  /// What an opening gets; null until then, and where it gets nothing to read.
  using Opened = std::shared_ptr<Stream::Reader>;

  struct Arrived {
    std::shared_ptr<Stream> stream;
    std::shared_ptr<GrowingContents> contents;
    std::weak_ptr<void> excuse;
  };

  /// The contents of a fetch begin to arrive; when they have been unread for long, it is cancelled.
  Arrived arrive(ItemNumber file, std::int64_t size = 100 * kMiB) {
    auto stream = std::make_shared<Stream>(scope, model::Version{"v"}, model::Content{7}, size,
                                           [this, file] { flights.cancelUnread(file); });
    auto contents = std::make_shared<GrowingContents>();
    EXPECT_TRUE(stream->goOn(contents));
    auto excuse = std::make_shared<int>();
    flights.arrive(file, stream, contents, excuse);
    loop.runUntilIdle();
    return {std::move(stream), std::move(contents), excuse};
  }
  /// Whether the fetch is to be begun.
  bool open(ItemNumber file, const Opened& opened = std::make_shared<Stream::Reader>()) {
    auto opener = std::make_shared<OneShot<Stream::Reader>>(scope);
    const bool isFirst = flights.await(file, opener);
    scope.spawn(take(std::move(opener), opened));
    loop.runUntilIdle();
    return isFirst;
  }
  bool awaitWhole(ItemNumber file) {
    return flights.await(file, std::make_shared<OneShot<void>>(scope));
  }
  void passLong() { loop.advance(2 * Stream::kUnreadTime); }

  test::SimulatedLoop loop;
  async::Scope scope{loop};
  Flights flights;

 private:
  static Task<void> take(Flights::Opener opener, Opened opened) {
    auto result = OneShot<Stream::Reader>::result(std::move(opener));
    *opened = co_await std::move(result);
  }
};

TEST_F(FlightsTest, OneFetchIsForAll) {
  EXPECT_TRUE(flights.want(kFilm));
  EXPECT_FALSE(flights.want(kFilm));
  EXPECT_FALSE(awaitWhole(kFilm));
  EXPECT_FALSE(open(kFilm));
  EXPECT_TRUE(open(kSong));
  EXPECT_EQ(flights.count(), 2);
  const auto ended = flights.end(kFilm, false);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->waiters.size(), 1u);
  EXPECT_EQ(ended->openers.size(), 1u);
  EXPECT_EQ(flights.count(), 1);
  EXPECT_TRUE(flights.want(kFilm));
}

TEST_F(FlightsTest, OpeningIsAnsweredWhenContentsArrive) {
  const auto first = std::make_shared<Stream::Reader>();
  const auto second = std::make_shared<Stream::Reader>();
  open(kFilm, first);
  EXPECT_FALSE(flights.stream(kFilm));
  EXPECT_FALSE(*first);
  const auto arrived = arrive(kFilm);
  EXPECT_EQ(*first, arrived.stream);
  EXPECT_EQ(flights.stream(kFilm), arrived.stream);
  EXPECT_FALSE(open(kFilm, second));
  EXPECT_EQ(*second, arrived.stream);
}

TEST_F(FlightsTest, FetchThatIsReadIsCountedApart) {
  open(kFilm);
  open(kSong);
  EXPECT_EQ(flights.countUnstreamed(), 2);
  arrive(kFilm);
  EXPECT_EQ(flights.countUnstreamed(), 1);
  EXPECT_EQ(flights.count(), 2);
}

TEST_F(FlightsTest, OpeningOfWhatHasFailedWaitsForTheEnd) {
  open(kFilm);
  const auto arrived = arrive(kFilm);
  arrived.stream->fail();
  const auto late = std::make_shared<Stream::Reader>();
  open(kFilm, late);
  EXPECT_FALSE(*late);
  const auto ended = flights.end(kFilm, true);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->openers.size(), 1u);
  EXPECT_EQ(ended->stream, arrived.stream);
}

TEST_F(FlightsTest, FetchIsCancelledTwoSecondsAfterItsLastReader) {
  const auto opened = std::make_shared<Stream::Reader>();
  open(kFilm, opened);
  const auto arrived = arrive(kFilm);
  passLong();
  EXPECT_FALSE(flights.isCancelled(kFilm));
  opened->reset();
  loop.advance(Stream::kUnreadTime - std::chrono::milliseconds(1));
  EXPECT_FALSE(flights.isCancelled(kFilm));
  loop.advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(flights.isCancelled(kFilm));
  EXPECT_TRUE(arrived.contents->isCancelled());
}

TEST_F(FlightsTest, FetchThatIsNearlyOverGoesOn) {
  open(kFilm);
  const auto arrived = arrive(kFilm);
  arrived.contents->grow(75 * kMiB);
  passLong();
  EXPECT_FALSE(flights.isCancelled(kFilm));
  EXPECT_FALSE(arrived.contents->isCancelled());
}

TEST_F(FlightsTest, FetchThatSomethingNeedsWholeGoesOnAndHurries) {
  for (const bool isWaitedFor : {true, false}) {
    for (const bool isNeededFirst : {true, false}) {
      const auto need = [&] { return isWaitedFor ? awaitWhole(kFilm) : flights.want(kFilm); };
      if (isNeededFirst) need();
      open(kFilm);
      const auto arrived = arrive(kFilm);
      if (!isNeededFirst) need();
      EXPECT_EQ(arrived.contents->limit(), ArrivingContents::kNoLimit);
      passLong();
      EXPECT_FALSE(flights.isCancelled(kFilm));
      EXPECT_FALSE(arrived.contents->isCancelled());
      EXPECT_TRUE(flights.end(kFilm, true));
    }
  }
}

TEST_F(FlightsTest, FetchThatCannotBeReadYetGoesOn) {
  open(kFilm);
  flights.cancelUnread(kFilm);
  flights.cancelUnread(kSong);
  flights.cancelUnread(std::size_t{0});
  EXPECT_FALSE(flights.isCancelled(kFilm));
  EXPECT_EQ(flights.count(), 1);
}

TEST_F(FlightsTest, FetchWhoseReadersCanReadNoMoreIsCancelled) {
  const auto opened = std::make_shared<Stream::Reader>();
  open(kFilm, opened);
  const auto arrived = arrive(kFilm);
  arrived.stream->fail();
  flights.cancelUnread(kFilm);
  EXPECT_TRUE(arrived.contents->isCancelled());
}

TEST_F(FlightsTest, CancelledFetchThatIsWantedAgainIsBegunAnew) {
  open(kFilm);
  const auto arrived = arrive(kFilm);
  passLong();
  const auto again = std::make_shared<Stream::Reader>();
  EXPECT_FALSE(open(kFilm, again));
  EXPECT_FALSE(*again);
  EXPECT_FALSE(flights.end(kFilm, true));
  EXPECT_FALSE(flights.isCancelled(kFilm));
  EXPECT_FALSE(flights.stream(kFilm));
  const auto second = arrive(kFilm);
  EXPECT_EQ(*again, second.stream);
  EXPECT_NE(second.stream, arrived.stream);
}

TEST_F(FlightsTest, CancelledFetchThatNothingWantsIsOver) {
  open(kFilm);
  arrive(kFilm);
  passLong();
  EXPECT_TRUE(flights.end(kFilm, true));
  EXPECT_EQ(flights.count(), 0);
}

TEST_F(FlightsTest, CancellingThatCameTooLateChangesNothing) {
  open(kFilm);
  arrive(kFilm);
  passLong();
  open(kFilm);
  const auto ended = flights.end(kFilm, false);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->openers.size(), 1u);
}

TEST_F(FlightsTest, FetchCancelledBetweenTwoAttemptsIsAnsweredNoMore) {
  const auto opened = std::make_shared<Stream::Reader>();
  open(kFilm, opened);
  const auto arrived = arrive(kFilm);
  flights.pause(kFilm);
  opened->reset();
  passLong();
  EXPECT_TRUE(flights.isCancelled(kFilm));
  EXPECT_FALSE(arrived.contents->isCancelled());
}

TEST_F(FlightsTest, OnlyTheLatestOfTheUnreadAreKept) {
  const auto read = std::make_shared<Stream::Reader>();
  open(ItemNumber{10}, read);
  const auto beingRead = arrive(ItemNumber{10});
  std::vector<Arrived> arrived;
  for (std::uint64_t number = 11; number <= 14; ++number) {
    open(ItemNumber{number});
    arrived.push_back(arrive(ItemNumber{number}));
  }
  flights.cancelUnread(std::size_t{2});
  EXPECT_FALSE(beingRead.contents->isCancelled());
  EXPECT_TRUE(arrived[0].contents->isCancelled());
  EXPECT_TRUE(arrived[1].contents->isCancelled());
  EXPECT_FALSE(arrived[2].contents->isCancelled());
  EXPECT_FALSE(arrived[3].contents->isCancelled());
}

TEST_F(FlightsTest, ExcuseLastsAsLongAsTheContentsArrive) {
  open(kFilm);
  const auto arrived = arrive(kFilm);
  EXPECT_FALSE(arrived.excuse.expired());
  flights.pause(kFilm);
  EXPECT_TRUE(arrived.excuse.expired());
  EXPECT_TRUE(flights.stream(kFilm));
  EXPECT_TRUE(arrived.stream->part(0, 0));
}

TEST_F(FlightsTest, ContentsOfAFetchThatIsOverAreNotTaken) {
  const auto arrived = arrive(kFilm);
  EXPECT_TRUE(arrived.excuse.expired());
  EXPECT_EQ(flights.count(), 0);
  flights.pause(kFilm);
  EXPECT_FALSE(flights.isCancelled(kFilm));
}

}  // namespace
}  // namespace kestrowan::replica::pull
