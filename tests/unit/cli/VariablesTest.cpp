#include "cli/Variables.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace kestrowan::cli {
namespace {

bool has(const char* name, std::string_view value) {
  const char* found = std::getenv(name);
  return found != nullptr && found == value;
}

TEST(VariablesTest, OnlyWhatTheProgramReadsStays) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        for (const char* name :
             {"OPENSSL_CONF", "SSLKEYLOGFILE", "ICU_DATA", "GCONV_PATH", "ANYTHING"}) {
          ::setenv(name, "/nowhere", 1);
        }
        ::setenv("KESTROWAN_CONTAINER", "a=b", 1);
        ::setenv("TMPDIR", "", 1);
        ::unsetenv("XDG_DATA_HOME");
        keepOwnVariables();
        int count = 0;
        while (environ[count] != nullptr) ++count;
        std::_Exit(has("KESTROWAN_CONTAINER", "a=b") && has("TMPDIR", "") && count <= 9 &&
                           std::getenv("OPENSSL_CONF") == nullptr &&
                           std::getenv("ANYTHING") == nullptr &&
                           std::getenv("XDG_DATA_HOME") == nullptr
                       ? 0
                       : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(VariablesTest, TheFirstOfTwoOfANameCounts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        char first[] = "TZ=first";
        char second[] = "TZ=second";
        char broken[] = "HOME";
        char* variables[] = {broken, first, second, nullptr};
        environ = variables;
        keepOwnVariables();
        std::_Exit(has("TZ", "first") && std::getenv("HOME") == nullptr ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kestrowan::cli
