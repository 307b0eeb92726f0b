#include "replica/model/Bytes.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace kestrowan::replica::model {
namespace {

TEST(BytesTest, AreThoseTheyWereMadeOf) {
  const std::string text("a\0b", 3);
  const Bytes bytes(text);
  EXPECT_EQ(bytes.view(), text);
  EXPECT_EQ(std::string(bytes), text);
  EXPECT_EQ(bytes, text);
  EXPECT_EQ(bytes.size(), 3U);
  EXPECT_FALSE(bytes.empty());
  EXPECT_TRUE(Bytes().empty());
  EXPECT_EQ(Bytes(""), Bytes());
}

TEST(BytesTest, AreComparedByteByByte) {
  EXPECT_LT(Bytes("a"), Bytes("b"));
  EXPECT_LT(Bytes("a"), Bytes("aa"));
  EXPECT_LT(Bytes("z"), Bytes("\xC3\xA9"));
  EXPECT_LT(Bytes(), Bytes("a"));
  EXPECT_NE(Bytes("a"), "b");
  EXPECT_LT(Bytes("a"), std::string("b"));
}

TEST(BytesTest, AreSharedByCopies) {
  const Bytes first("name");
  const Bytes copy = first;
  EXPECT_EQ(copy.view().data(), first.view().data());
  Bytes other("name");
  EXPECT_NE(other.view().data(), first.view().data());
  other.share(first);
  EXPECT_EQ(other.view().data(), first.view().data());
  Bytes different("nome");
  different.share(first);
  EXPECT_EQ(different, "nome");
}

TEST(BytesTest, StayUntilTheLastCopyGoes) {
  Bytes copy;
  {
    Bytes first("a name that is longer than a few bytes");
    copy = first;
    first = Bytes("other");
  }
  EXPECT_EQ(copy, "a name that is longer than a few bytes");
}

TEST(BytesTest, MayBeCopiedByTwoThreadsAtOnce) {
  const Bytes bytes("name");
  const auto copyOften = [&] {
    for (int i = 0; i < 10'000; ++i) {
      const Bytes copy = bytes;
      EXPECT_EQ(copy.size(), 4U);
    }
  };
  std::thread other(copyOften);
  copyOften();
  other.join();
  EXPECT_EQ(bytes, "name");
}

}  // namespace
}  // namespace kestrowan::replica::model
