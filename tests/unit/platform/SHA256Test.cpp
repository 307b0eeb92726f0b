#include "platform/foundation/SHA256.h"

#include <gtest/gtest.h>

namespace kestrowan {
namespace {

TEST(SHA256, GivesTheDigestsOfTheStandard) {
  EXPECT_EQ(sha256Text(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Text("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(SHA256, TakesEveryByte) {
  EXPECT_NE(sha256Text(std::string_view("a\0b", 3)), sha256Text(std::string_view("a\0c", 3)));
  EXPECT_EQ(sha256Text(std::string(1'000'000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
}  // namespace kestrowan
