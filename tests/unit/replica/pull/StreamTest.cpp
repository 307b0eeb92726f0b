#include "replica/pull/Stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "GrowingContents.h"
#include "async/Scope.h"
#include "platform/foundation/NSError.h"
#include "support/SimulatedLoop.h"

namespace kestrowan::replica::pull {
namespace {

using remote::ArrivingContents;
using std::chrono::milliseconds;
using test::GrowingContents;

constexpr std::int64_t kMiB = 1 << 20;
constexpr std::int64_t kSize = 100 * kMiB;
constexpr milliseconds kMoment{1};

/// How a wait for bytes has ended.
enum class Wait { goesOn, hasArrived, hasFailed };

class StreamTest : public testing::Test {
 protected:
  std::shared_ptr<Stream> makeStream(std::int64_t size = kSize) {
    return std::make_shared<Stream>(scope, model::Version{"v"}, model::Content{7}, size,
                                    [this] { ++unread; });
  }
  std::shared_ptr<GrowingContents> arriving(const std::shared_ptr<Stream>& stream) {
    auto contents = std::make_shared<GrowingContents>();
    EXPECT_TRUE(stream->goOn(contents));
    return contents;
  }
  std::shared_ptr<const Wait> wait(std::shared_ptr<Stream> stream, std::int64_t end) {
    auto result = std::make_shared<Wait>(Wait::goesOn);
    scope.spawn(await(std::move(stream), end, result));
    loop.runUntilIdle();
    return result;
  }
  Wait after(const std::shared_ptr<const Wait>& wait) {
    loop.runUntilIdle();
    return *wait;
  }

  test::SimulatedLoop loop;
  async::Scope scope{loop};
  int unread = 0;

 private:
  static Task<void> await(std::shared_ptr<Stream> stream, std::int64_t end,
                          std::shared_ptr<Wait> result) {
    try {
      auto arrival = Stream::arrival(std::move(stream), end);
      co_await std::move(arrival);
      *result = Wait::hasArrived;
    } catch (const NSError& error) {
      EXPECT_TRUE(error.is(NSPOSIXErrorDomain, EIO));
      *result = Wait::hasFailed;
    }
  }
};

std::string bytesOf(const std::optional<Stream::Part>& part, std::int64_t offset) {
  if (!part) return "not here";
  std::string bytes(part->size, '\0');
  const auto count = ::pread(part->file->get(), bytes.data(), bytes.size(), offset);
  bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return bytes;
}

bool isLost(const Stream& stream, std::int64_t offset = 0) {
  try {
    stream.part(offset, 1);
    return false;
  } catch (const NSError& error) {
    return error.is(NSPOSIXErrorDomain, EIO);
  }
}

TEST_F(StreamTest, GivesWhatHasArrivedAndNothingElse) {
  const auto stream = makeStream(10);
  EXPECT_EQ(bytesOf(stream->part(0, 1), 0), "not here");
  const auto contents = arriving(stream);
  contents->grow("abcdef");
  EXPECT_EQ(bytesOf(stream->part(0, 6), 0), "abcdef");
  EXPECT_EQ(bytesOf(stream->part(2, 3), 2), "cde");
  EXPECT_EQ(bytesOf(stream->part(0, 7), 0), "not here");
  EXPECT_EQ(bytesOf(stream->part(6, 1), 6), "not here");
}

TEST_F(StreamTest, GivesTheRestAtTheEndOfTheFileOnly) {
  const auto stream = makeStream(10);
  const auto contents = arriving(stream);
  contents->grow("abcdefghi");
  EXPECT_EQ(bytesOf(stream->part(8, 100), 8), "not here");
  contents->grow("j");
  EXPECT_EQ(bytesOf(stream->part(8, 100), 8), "ij");
  EXPECT_EQ(bytesOf(stream->part(10, 100), 10), "");
  EXPECT_EQ(bytesOf(stream->part(500, 100), 500), "");
}

TEST_F(StreamTest, WaitEndsWithItsBytesAndNotBefore) {
  const auto stream = makeStream();
  const auto contents = arriving(stream);
  const auto far = wait(stream, 30);
  const auto near = wait(stream, 10);
  contents->grow(9);
  EXPECT_EQ(after(near), Wait::goesOn);
  contents->grow(1);
  EXPECT_EQ(after(near), Wait::hasArrived);
  EXPECT_EQ(*far, Wait::goesOn);
  EXPECT_EQ(stream->waiting(), 1u);
  contents->grow(20);
  EXPECT_EQ(after(far), Wait::hasArrived);
  EXPECT_EQ(*wait(stream, 30), Wait::hasArrived);
}

TEST_F(StreamTest, WaitBeyondTheEndIsForTheEnd) {
  const auto stream = makeStream(10);
  const auto contents = arriving(stream);
  const auto beyond = wait(stream, 1000);
  contents->grow(10);
  EXPECT_EQ(after(beyond), Wait::hasArrived);
}

TEST_F(StreamTest, WaitThatBeganBeforeContentsCameEndsWithThem) {
  const auto stream = makeStream();
  const auto early = wait(stream, 10);
  const auto contents = arriving(stream);
  EXPECT_EQ(*early, Wait::goesOn);
  contents->grow(10);
  EXPECT_EQ(after(early), Wait::hasArrived);
}

TEST_F(StreamTest, ThoseThatWaitLookAgainWhenStirred) {
  const auto stream = makeStream();
  const auto contents = arriving(stream);
  const auto waiting = wait(stream, 10);
  stream->stir();
  EXPECT_EQ(after(waiting), Wait::hasArrived);
  EXPECT_EQ(stream->waiting(), 0u);
}

TEST_F(StreamTest, ReadersGoOverToOtherContents) {
  const auto stream = makeStream(10);
  const auto first = arriving(stream);
  first->grow("abcdef");
  const auto waiting = wait(stream, 8);
  stream->pause();
  EXPECT_EQ(bytesOf(stream->part(0, 6), 0), "abcdef");
  const auto second = arriving(stream);
  EXPECT_EQ(bytesOf(stream->part(0, 6), 0), "not here");
  second->grow("abcdefg");
  EXPECT_EQ(after(waiting), Wait::goesOn);
  EXPECT_EQ(bytesOf(stream->part(0, 7), 0), "abcdefg");
  second->grow("hij");
  EXPECT_EQ(after(waiting), Wait::hasArrived);
  EXPECT_EQ(bytesOf(stream->part(0, 10), 0), "abcdefghij");
}

TEST_F(StreamTest, OtherContentsComeAsFarAsTheFirstWereAskedFor) {
  const auto stream = makeStream();
  const auto reader = stream->reader();
  arriving(stream);
  wait(stream, kMiB);
  stream->pause();
  EXPECT_EQ(arriving(stream)->limit(), kMiB + Stream::kAhead);
}

TEST_F(StreamTest, ContentsWithoutADescriptorAreNotTaken) {
  const auto stream = makeStream();
  const auto contents = std::make_shared<GrowingContents>();
  contents->refuseToOpen();
  EXPECT_FALSE(stream->goOn(contents));
  EXPECT_EQ(bytesOf(stream->part(0, 1), 0), "not here");
  EXPECT_FALSE(contents->limit());
}

TEST_F(StreamTest, WholeContentsStayReadable) {
  const auto stream = makeStream(3);
  arriving(stream)->grow("abc");
  stream->pause();
  stream->finish();
  EXPECT_TRUE(stream->isWhole());
  stream->fail();
  EXPECT_FALSE(stream->hasFailed());
  EXPECT_EQ(bytesOf(stream->part(0, 10), 0), "abc");
  EXPECT_EQ(*wait(stream, 3), Wait::hasArrived);
}

TEST_F(StreamTest, FewerBytesThanTheSizeAreNotTheWhole) {
  const auto stream = makeStream(3);
  arriving(stream)->grow("ab");
  stream->pause();
  stream->finish();
  EXPECT_FALSE(stream->isWhole());
  EXPECT_EQ(bytesOf(stream->part(0, 3), 0), "not here");
  stream->fail();
  EXPECT_TRUE(isLost(*stream));
}

TEST_F(StreamTest, FailureIsForGoodAndForAllOfTheFile) {
  const auto stream = makeStream(3);
  arriving(stream)->grow("ab");
  const auto waiting = wait(stream, 3);
  stream->pause();
  stream->fail();
  EXPECT_EQ(after(waiting), Wait::hasFailed);
  EXPECT_TRUE(isLost(*stream));
  EXPECT_TRUE(isLost(*stream, 1));
  EXPECT_TRUE(isLost(*stream, 1000));
  EXPECT_EQ(*wait(stream, 1), Wait::hasFailed);
  arriving(stream)->grow("abc");
  stream->finish();
  EXPECT_FALSE(stream->isWhole());
  EXPECT_TRUE(isLost(*stream));
}

TEST_F(StreamTest, ComesALittleFurtherThanWasAskedFor) {
  const auto stream = makeStream();
  const auto reader = stream->reader();
  const auto contents = arriving(stream);
  EXPECT_EQ(contents->limit(), Stream::kAhead);
  wait(stream, 1000);
  EXPECT_EQ(contents->limit(), 1000 + Stream::kAhead);
  wait(stream, 10);
  EXPECT_EQ(contents->limit(), 1000 + Stream::kAhead);
}

TEST_F(StreamTest, ComesAsFastAsItCanOnceItIsReadOn) {
  const auto stream = makeStream();
  const auto reader = stream->reader();
  const auto contents = arriving(stream);
  wait(stream, Stream::kPeek - 1);
  EXPECT_EQ(contents->limit(), Stream::kPeek - 1 + Stream::kAhead);
  wait(stream, Stream::kPeek);
  EXPECT_EQ(contents->limit(), ArrivingContents::kNoLimit);
}

TEST_F(StreamTest, ComesAsFastAsItCanForAFileThatStaysOpen) {
  const auto stream = makeStream();
  const auto reader = stream->reader();
  const auto contents = arriving(stream);
  loop.advance(Stream::kPeekTime - kMoment);
  EXPECT_EQ(contents->limit(), Stream::kAhead);
  loop.advance(kMoment);
  EXPECT_EQ(contents->limit(), ArrivingContents::kNoLimit);
}

TEST_F(StreamTest, ComesAsFastAsItCanWhenItIsNeededWhole) {
  const auto stream = makeStream();
  const auto first = arriving(stream);
  stream->hurry();
  EXPECT_EQ(first->limit(), ArrivingContents::kNoLimit);
  stream->reader().reset();
  EXPECT_EQ(first->limit(), ArrivingContents::kNoLimit);
  stream->pause();
  EXPECT_EQ(arriving(stream)->limit(), ArrivingContents::kNoLimit);
}

TEST_F(StreamTest, StopsWithItsLastReader) {
  const auto stream = makeStream();
  auto first = stream->reader();
  auto second = stream->reader();
  const auto contents = arriving(stream);
  wait(stream, Stream::kPeek);
  first.reset();
  EXPECT_FALSE(stream->isUnread());
  EXPECT_EQ(contents->limit(), ArrivingContents::kNoLimit);
  second.reset();
  EXPECT_TRUE(stream->isUnread());
  EXPECT_EQ(contents->limit(), 0);
  const auto third = stream->reader();
  EXPECT_EQ(contents->limit(), ArrivingContents::kNoLimit);
}

TEST_F(StreamTest, SaysThatItIsUnreadTwoSecondsAfterItsLastReader) {
  const auto stream = makeStream();
  arriving(stream);
  stream->reader().reset();
  loop.advance(Stream::kUnreadTime - kMoment);
  EXPECT_EQ(unread, 0);
  loop.advance(kMoment);
  EXPECT_EQ(unread, 1);
  stream->reader().reset();
  loop.advance(Stream::kUnreadTime);
  EXPECT_EQ(unread, 2);
}

TEST_F(StreamTest, ReaderThatComesBackIsNotUnread) {
  const auto stream = makeStream();
  arriving(stream);
  stream->reader().reset();
  loop.advance(Stream::kUnreadTime - kMoment);
  auto reader = stream->reader();
  loop.advance(2 * Stream::kUnreadTime);
  EXPECT_EQ(unread, 0);
  reader.reset();
  loop.advance(Stream::kUnreadTime - kMoment);
  EXPECT_EQ(unread, 0);
  loop.advance(kMoment);
  EXPECT_EQ(unread, 1);
}

TEST_F(StreamTest, SaysNothingOfReadersAtItsEnd) {
  for (const bool isWhole : {true, false}) {
    const auto stream = makeStream(2);
    arriving(stream)->grow("ab");
    auto reader = stream->reader();
    if (isWhole) {
      stream->finish();
    } else {
      stream->fail();
    }
    reader.reset();
    loop.advance(2 * Stream::kUnreadTime);
    EXPECT_EQ(unread, 0);
  }
}

TEST_F(StreamTest, AQuarterOrFourMegabytesAreLittle) {
  struct Case {
    std::int64_t size;
    std::int64_t lacking;
    bool isLittle;
  };
  for (const Case& each : {Case{100 * kMiB, 25 * kMiB + 1, false},
                           Case{100 * kMiB, 25 * kMiB, true}, Case{10 * kMiB, 4 * kMiB + 1, false},
                           Case{10 * kMiB, 4 * kMiB, true}, Case{3 * kMiB, 3 * kMiB, true}}) {
    const auto stream = makeStream(each.size);
    const auto contents = arriving(stream);
    stream->reader().reset();
    contents->grow(each.size - each.lacking);
    EXPECT_EQ(stream->isNearlyWhole(), each.isLittle) << each.size << " " << each.lacking;
    stream->reader().reset();
    EXPECT_EQ(contents->limit(), each.isLittle ? ArrivingContents::kNoLimit : 0);
  }
}

TEST_F(StreamTest, LastsAsLongAsItsReader) {
  auto stream = makeStream();
  const std::weak_ptr<Stream> weak = stream;
  auto reader = stream->reader();
  arriving(stream);
  stream.reset();
  EXPECT_FALSE(weak.expired());
  reader.reset();
  loop.advance(2 * Stream::kUnreadTime);
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace kestrowan::replica::pull
