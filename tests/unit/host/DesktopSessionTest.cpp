#include "host/DesktopSession.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

constexpr uid_t kUser = 1000;

std::string note(const std::string& user, const std::string& active, const std::string& type) {
  return "# This is private data. Do not parse.\nUID=" + user + "\nUSER=ada\nACTIVE=" + active +
         "\nIS_DISPLAY=1\nSTATE=active\nTYPE=" + type + "\nCLASS=user\n";
}

TEST(DesktopSession, ADesktopInTheForegroundIsActive) {
  for (const char* type : {"wayland", "x11", "mir"}) {
    EXPECT_TRUE(isActiveDesktop(note("1000", "1", type), kUser)) << type;
  }
}

TEST(DesktopSession, EverythingElseIsNot) {
  EXPECT_FALSE(isActiveDesktop(note("1000", "0", "wayland"), kUser));
  EXPECT_FALSE(isActiveDesktop(note("1000", "1", "tty"), kUser));
  EXPECT_FALSE(isActiveDesktop(note("100", "1", "x11"), kUser));
  EXPECT_FALSE(isActiveDesktop(note("10000", "1", "x11"), kUser));
  EXPECT_FALSE(isActiveDesktop("TYPE=x11\nUID=1000\n", kUser));
  EXPECT_FALSE(isActiveDesktop("NOTUID=1000\nACTIVE=1\nTYPE=x11", kUser));
  EXPECT_FALSE(isActiveDesktop("", kUser));
}

TEST(DesktopSession, OneOfManySessionsIsEnough) {
  const test::TemporaryDirectory directory;
  EXPECT_FALSE(hasActiveDesktop(kUser, directory.path()));
  std::ofstream(directory.path() + "/1") << note("1000", "1", "tty");
  std::ofstream(directory.path() + "/2.ref") << note("1000", "1", "x11");
  EXPECT_FALSE(hasActiveDesktop(kUser, directory.path()));
  std::ofstream(directory.path() + "/c2") << note("1000", "1", "x11");
  EXPECT_TRUE(hasActiveDesktop(kUser, directory.path()));
}

TEST(DesktopSession, WithoutALoginManagerThereIsNone) {
  const test::TemporaryDirectory directory;
  EXPECT_FALSE(hasActiveDesktop(kUser, directory.path() + "/none"));
}

}  // namespace
}  // namespace kestrowan::host
