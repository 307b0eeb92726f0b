#include "replica/NameRules.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <string>

#include "platform/foundation/NSString.h"
#include "replica/remote/ValidName.h"

namespace kestrowan::replica {
namespace {

using namespace std::string_literals;

/// Sets the time zone while it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* name) {
    if (const char* before = std::getenv("TZ")) before_ = before;
    set(name);
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() { set(before_.empty() ? nullptr : before_.c_str()); }

 private:
  static void set(const char* name) {
    if (name) {
      ::setenv("TZ", name, 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }
  std::string before_;
};

constexpr std::int64_t kMoment = 1769860800;  // 2026-01-31 12:00:00 UTC

TEST(NameClass, LockSwapAndTemporaryFilesStayHere) {
  for (const auto* name :
       {".~lock.letter.odt#", ".~lock.#", ".letter.txt.swp", ".letter.swo", "..swx", "4913",
        ".goutputstream-X1Y2Z3", ".goutputstream-", ".nfs0000a", ".fuse_hidden0001", "._letter",
        ".DS_Store", "~$letter.docx", "film.mkv.part", ".part", "film.crdownload"}) {
    EXPECT_EQ(nameClass(name), NameClass::localOnly) << name;
  }
}

TEST(NameClass, TrashFoldersAreRefused) {
  for (const auto* name : {".Trash", ".Trash-1000", ".Trash-"}) {
    EXPECT_EQ(nameClass(name), NameClass::refused) << name;
  }
}

TEST(NameRules, NamesThatProgramsLookForInEachFolderAreProbed) {
  for (const auto* name :
       {".git", ".gitignore", ".gitattributes", ".gitmodules", ".hg", ".svn", ".bzr", ".ignore",
        ".rgignore", ".editorconfig", ".hidden", ".directory", ".nomedia", ".trackerignore",
        ".Trash", ".Trash-1000", ".xdg-volume-info", ".autorun", "autorun.inf"}) {
    EXPECT_TRUE(isProbed(name)) << name;
  }
  for (const auto* name : {"git", ".gitx", ".hidden ", "directory", "report.txt", ""}) {
    EXPECT_FALSE(isProbed(name)) << name;
  }
}

TEST(NameClass, OtherNamesAreOrdinary) {
  for (const auto* name : {"letter.txt",
                           ".~lock.letter.odt",
                           "letter.swp",
                           ".swp",
                           ".letter.swpx",
                           ".letter.sw",
                           "49130",
                           "14913",
                           "goutputstream-1",
                           ".nf",
                           ".DS_Store2",
                           ".ds_store",
                           "~letter",
                           "$~x",
                           "a.parts",
                           "part",
                           "crdownload",
                           ".Trashes",
                           "Trash",
                           ".trash",
                           "_.x",
                           ""}) {
    EXPECT_EQ(nameClass(name), NameClass::ordinary) << name;
  }
}

TEST(ConflictName, SaysWhenAndWhereBeforeTheExtension) {
  const TimeZone utc("UTC");
  EXPECT_EQ(conflictName("report.txt", kMoment, "desk"),
            "report (conflict 2026-01-31 1200 desk).txt");
  EXPECT_EQ(conflictName("archive.tar.gz", kMoment, "desk"),
            "archive.tar (conflict 2026-01-31 1200 desk).gz");
  EXPECT_EQ(conflictName("Makefile", kMoment, "desk"), "Makefile (conflict 2026-01-31 1200 desk)");
}

TEST(ConflictName, IsInLocalTime) {
  const TimeZone east("UTC-2");
  EXPECT_EQ(conflictName("a", kMoment, "h"), "a (conflict 2026-01-31 1400 h)");
}

TEST(ConflictName, AFurtherAttemptIsNumbered) {
  const TimeZone utc("UTC");
  EXPECT_EQ(conflictName("a.b", kMoment, "h", 1), "a (conflict 2026-01-31 1200 h).b");
  EXPECT_EQ(conflictName("a.b", kMoment, "h", 3), "a (conflict 2026-01-31 1200 h 3).b");
}

TEST(ConflictName, OfTheHostOnlyPlainCharactersAreTaken) {
  const TimeZone utc("UTC");
  EXPECT_EQ(conflictName("a", kMoment, "my/../h\xC3\xB6st\n_1-2"),
            "a (conflict 2026-01-31 1200 my..hst_1-2)");
  EXPECT_EQ(conflictName("a", kMoment, "/"), "a (conflict 2026-01-31 1200)");
  EXPECT_TRUE(remote::isValidName(conflictName("a.txt", kMoment, std::string(500, 'h'))));
}

TEST(ConflictName, HiddenNamesHaveNoExtensionOfTheirOwn) {
  const TimeZone utc("UTC");
  EXPECT_EQ(conflictName(".bashrc", kMoment, "h"), ".bashrc (conflict 2026-01-31 1200 h)");
  EXPECT_EQ(conflictName(".a.txt", kMoment, "h"), ".a (conflict 2026-01-31 1200 h).txt");
  EXPECT_EQ(conflictName("...", kMoment, "h"), "... (conflict 2026-01-31 1200 h)");
  EXPECT_EQ(conflictName("a.", kMoment, "h"), "a. (conflict 2026-01-31 1200 h)");
}

TEST(ConflictName, LongNamesLoseTheEndOfTheirStem) {
  const TimeZone utc("UTC");
  const auto name = conflictName(std::string(251, 'x') + ".txt", kMoment, "desk");
  EXPECT_EQ(name.size(), 255u);
  EXPECT_TRUE(name.starts_with(std::string(200, 'x')));
  EXPECT_TRUE(name.ends_with("x (conflict 2026-01-31 1200 desk).txt"));
}

TEST(ConflictName, NeverCutsACharacterInTwo) {
  for (const auto* character : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}) {
    for (std::size_t lead = 0; lead < 4; ++lead) {
      std::string name(lead, 'a');
      while (name.size() + 8 <= 255) name += character;
      const auto result = conflictName(name + ".txt", kMoment, "host");
      EXPECT_LE(result.size(), 255u);
      EXPECT_GE(result.size(), 252u);
      EXPECT_TRUE(isValidUTF8(result)) << result;
    }
  }
}

TEST(ConflictName, BytesThatAreNoTextAreCutAnywhere) {
  const auto result = conflictName(std::string(255, '\x80'), kMoment, "host");
  EXPECT_EQ(result.size(), 255u);
  EXPECT_TRUE(remote::isValidName(result));
}

TEST(ConflictName, SomethingLongBehindAFullStopIsNoExtension) {
  const auto result = conflictName("a." + std::string(253, 'x'), kMoment, "host");
  EXPECT_EQ(result.size(), 255u);
  EXPECT_TRUE(result.starts_with("a.xxx"));
  EXPECT_TRUE(result.ends_with(" host)"));
}

TEST(ConflictName, ATimeBeyondTheCalendarStillGivesAName) {
  EXPECT_TRUE(remote::isValidName(conflictName("a.txt", INT64_MAX, "host")));
  EXPECT_TRUE(remote::isValidName(conflictName("a.txt", INT64_MIN, "host")));
}

TEST(BouncedName, IsNumberedBeforeTheExtension) {
  EXPECT_EQ(bouncedName("report.txt", 2), "report (2).txt");
  EXPECT_EQ(bouncedName("report", 17), "report (17)");
  const auto longest = bouncedName(std::string(251, 'x') + ".txt", 2);
  EXPECT_EQ(longest, std::string(247, 'x') + " (2).txt");
}

}  // namespace
}  // namespace kestrowan::replica
