#include "platform/linux/CurlResponseHead.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "platform/foundation/NSError.h"

namespace kestrowan {
namespace {

/// The head of an answer with these lines.
CurlResponseHead headOf(std::initializer_list<const char*> lines, long status = 200) {
  CurlResponseHead head;
  for (const auto* line : lines) head.add(std::string(line) + "\r\n", status);
  head.add("\r\n", status);
  return head;
}

TEST(CurlResponseHeadTest, LengthOrChunkedAloneMarkTheEnd) {
  EXPECT_FALSE(headOf({"HTTP/1.1 200 OK", "Content-Length: 7"}).leavesEndOpen());
  const auto chunked = headOf({"HTTP/1.1 200 OK", "transfer-encoding: \t CHUNKED "});
  EXPECT_FALSE(chunked.leavesEndOpen());
  EXPECT_FALSE(chunked.hasForeignCoding());
  EXPECT_TRUE(headOf({"HTTP/1.1 200 OK"}).leavesEndOpen());
  EXPECT_FALSE(headOf({"HTTP/1.1 204 None"}, 204).leavesEndOpen());
}

TEST(CurlResponseHeadTest, EveryOtherCodingIsForeign) {
  for (const auto* coding : {"identity", "gzip", "", "chunked, chunked", "gzip, chunked",
                             "chunked;q=1", "chunkedx", "\"chunked\""}) {
    const auto line = std::string("Transfer-Encoding: ") + coding;
    EXPECT_TRUE(headOf({"HTTP/1.1 200 OK", line.c_str()}).hasForeignCoding()) << coding;
    EXPECT_TRUE(headOf({"HTTP/1.1 200 OK", line.c_str(), "Content-Length: 3"}).hasForeignCoding())
        << coding;
    EXPECT_FALSE(headOf({"HTTP/1.1 204 None", line.c_str()}, 204).hasForeignCoding()) << coding;
  }
  const auto* chunked = "Transfer-Encoding: chunked";
  EXPECT_TRUE(headOf({"HTTP/1.1 200 OK", chunked, chunked}).hasForeignCoding());
  EXPECT_TRUE(headOf({"HTTP/1.0 200 OK", chunked}).hasForeignCoding());
}

TEST(CurlResponseHeadTest, InterimHeadsAreForgotten) {
  CurlResponseHead head;
  for (const auto* line : {"HTTP/1.0 103 Early", "Content-Length: 7", "Transfer-Encoding: x", ""}) {
    head.add(std::string(line) + "\r\n", 103);
  }
  EXPECT_FALSE(head.isComplete());
  for (const auto* line : {"HTTP/1.1 200 OK", ""}) head.add(std::string(line) + "\r\n", 200);
  EXPECT_TRUE(head.isComplete());
  EXPECT_TRUE(head.leavesEndOpen());
  EXPECT_FALSE(head.hasForeignCoding());
}

TEST(CurlResponseHeadTest, LinesBehindTheBodyAreOnlyCounted) {
  auto head = headOf({"HTTP/1.1 200 OK", "Transfer-Encoding: chunked"});
  head.add("Content-Length: x\r\n", 200);
  head.add("Transfer-Encoding: gzip\r\n", 200);
  EXPECT_FALSE(head.hasForeignCoding());
  const std::string line = "X: " + std::string(1000, 'x') + "\r\n";
  EXPECT_THROW(
      {
        for (int i = 0; i < 300; ++i) head.add(line, 200);
      },
      NSError);
}

TEST(CurlResponseHeadTest, LinesOfMoreThanAQuarterOfAMebibyteAreRefused) {
  CurlResponseHead head;
  std::size_t taken = 0;
  const std::string line(1024, 'x');
  try {
    while (true) {
      head.add(line, 200);
      taken += line.size();
    }
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSURLErrorDomain, NSURLErrorCannotParseResponse));
  }
  EXPECT_EQ(taken, 256u * 1024);
}

}  // namespace
}  // namespace kestrowan
