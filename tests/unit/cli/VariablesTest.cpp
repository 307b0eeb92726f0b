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

/// The exit code of a process of its own, as the next one too: 0 when all is well.
int afterOthersWereSet() {
  constexpr int kMost = 9;
  for (const char* name : {"OPENSSL_CONF", "SSLKEYLOGFILE", "ICU_DATA", "GCONV_PATH", "ANYTHING"}) {
    ::setenv(name, "/nowhere", 1);
  }
  ::setenv("KESTROWAN_CONTAINER", "a=b", 1);
  ::setenv("TMPDIR", "", 1);
  ::unsetenv("XDG_DATA_HOME");
  keepOwnVariables();
  int count = 0;
  while (environ[count] != nullptr) ++count;
  const bool foreign = std::getenv("OPENSSL_CONF") != nullptr ||
                       std::getenv("ANYTHING") != nullptr ||
                       std::getenv("XDG_DATA_HOME") != nullptr;
  return has("KESTROWAN_CONTAINER", "a=b") && has("TMPDIR", "") && count <= kMost && !foreign ? 0
                                                                                              : 1;
}

int afterOneWasThereTwice() {
  char broken[] = "HOME";
  char first[] = "TZ=first";
  char second[] = "TZ=second";
  char* variables[] = {broken, first, second, nullptr};
  environ = variables;
  keepOwnVariables();
  return has("TZ", "first") && std::getenv("HOME") == nullptr ? 0 : 1;
}

TEST(VariablesTest, OnlyWhatTheProgramReadsStays) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::_Exit(afterOthersWereSet()), testing::ExitedWithCode(0), "");
}

TEST(VariablesTest, TheFirstOfTwoOfANameCounts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::_Exit(afterOneWasThereTwice()), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kestrowan::cli
