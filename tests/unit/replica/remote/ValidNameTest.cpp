#include "replica/remote/ValidName.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrowan::replica::remote {
namespace {

using namespace std::string_literals;

TEST(ValidName, IsOneComponentOfAtMost255Bytes) {
  for (const auto& name : {"a"s, " "s, "..."s, ".a"s, "a\n"s, "\xFF\xFE"s, std::string(255, 'x')}) {
    EXPECT_TRUE(isValidName(name)) << name;
  }
  for (const auto& name : {""s, "."s, ".."s, "/"s, "a/b"s, "a\0b"s, std::string(256, 'x')}) {
    EXPECT_FALSE(isValidName(name)) << name;
  }
}

}  // namespace
}  // namespace kestrowan::replica::remote
