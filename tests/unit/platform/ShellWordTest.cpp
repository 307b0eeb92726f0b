#include "platform/foundation/ShellWord.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/foundation/Logger.h"

namespace kestrowan {
namespace {

/// What bash makes of it.
std::string read(const std::string& word) {
  ::setenv("COMMAND", ("printf %s " + word).c_str(), 1);
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen("bash -c \"$COMMAND\"", "r"), ::pclose);
  std::string text;
  std::array<char, 256> piece;
  while (const auto count = std::fread(piece.data(), 1, piece.size(), pipe.get())) {
    text.append(piece.data(), count);
  }
  ::unsetenv("COMMAND");
  return text;
}

TEST(ShellWord, IsQuotedSoThatPeopleCanReadIt) {
  EXPECT_EQ(shellWord("/mnt/Storage"), "'/mnt/Storage'");
  EXPECT_EQ(shellWord(""), "''");
  EXPECT_EQ(shellWord("it's"), "'it'\\''s'");
  EXPECT_EQ(shellWord("/h\xC3\xB6me"), "'/h\xC3\xB6me'");
}

TEST(ShellWord, SpellsOutWhatCouldSteerATerminal) {
  EXPECT_EQ(shellWord("a\033[2Jb"), "$'a\\x1B[2Jb'");
  EXPECT_EQ(shellWord("\xFF'\\"), "$'\\xFF\\'\\\\'");
}

TEST(ShellWord, IsReadAsItWasByTheShellAndSafeToShow) {
  for (const std::string text :
       {"plain", "two words", "it's", "$HOME `id` \\ \" ! * ~ ; & | < > ( ) { } #",
        "line\nbreak\n-", "\033]0;title\007", "not UTF-8 \xFF\xC3", "'\n'",
        "\xE2\x80\xAE right to left", "h\xC3\xB6me\x01"}) {
    const auto word = shellWord(text);
    EXPECT_EQ(read(word), text) << word;
    EXPECT_EQ(escapedForDisplay(word), word);
  }
}

}  // namespace
}  // namespace kestrowan
