#include "cli/StatusText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrowan::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::int64_t kNow = 1'000'000;

JSONValue status(std::string_view members) {
  return *JSONValue::parse(
      R"({"domain":"default","mountPoint":"/mnt/x","stateDirectory":"/state","process":7,)"
      R"("started":996400,"items":20,"cache":{"files":3,"bytes":2048})" +
      std::string(members) + "}");
}

TEST(StatusText, AQuietMountIsFourLines) {
  EXPECT_EQ(statusText(status(R"(,"state":"online","pending":{"count":0,"bytes":0,"items":[]})"),
                       kNow, 10),
            "Mount:     /mnt/x  (domain default, process 7, for 1 h)\n"
            "Server:    in reach\n"
            "Here:      3 files, 2.0 KiB, that could be fetched again; 20 items known\n"
            "To send:   nothing\n");
}

TEST(StatusText, TheContainerIsShownWhenItIsTold) {
  EXPECT_THAT(statusText(status(R"(,"container":"/srv/w\u001b")"), kNow, 10),
              HasSubstr("\nContainer: /srv/w\\u001B\n"));
}

TEST(StatusText, AFailureIsShownWithReasonAgeAndNextTry) {
  const auto text = statusText(
      status(R"(,"state":"online","pending":{"count":3,"bytes":5000,"items":[{"path":"/a",)"
             R"("kind":"file","state":"retrying","changes":"contents","size":5000,"failure":)"
             R"({"class":"transient","domain":"D","code":-3,"text":"full","since":999700,)"
             R"("next":1000012,"tries":4}},{"path":"/b","kind":"folder","state":"refused",)"
             R"("changes":"create","size":0,"failure":{"class":"refused","domain":"P","code":1,)"
             R"("text":"no","since":999990,"next":0,"tries":1}}]})"),
      kNow, 10);
  EXPECT_THAT(text, HasSubstr("To send:   3 changes, 4.9 KiB\n"));
  EXPECT_THAT(text, HasSubstr("  retrying  contents          4.9 KiB     /a\n"
                              "            full (D -3), for 5 min; next try in 12 s\n"));
  EXPECT_THAT(text, HasSubstr("  refused   create            -           /b\n"
                              "            no (P 1), for 10 s; not tried again: save elsewhere, or "
                              "run kestrowan retry '/mnt/x/b', or kestrowan discard '/mnt/x/b'\n"));
  EXPECT_THAT(text, HasSubstr("  … and 1 more\n"));
}

TEST(StatusText, TheServersAnswerNeedsNoNumberOfAnError) {
  const auto text = statusText(
      status(R"x(,"pending":{"count":1,"bytes":0,"items":[{"path":"/a","kind":"file",)x"
             R"x("state":"retrying","changes":"contents","size":5,"failure":{"class":"slow",)x"
             R"x("domain":"D","code":507,"text":"no room (507 to PUT)","since":999970,)x"
             R"x("next":1000012,"tries":1,"status":507,"reason":"full"}}]})x"),
      kNow, 10);
  EXPECT_THAT(text, HasSubstr("no room (507 to PUT), for 30 s; next try in 12 s\n"));
}

TEST(StatusText, OnlySoManyItemsAreShown) {
  const auto text = statusText(
      status(R"(,"pending":{"count":2,"bytes":0,"items":[{"path":"/a"},{"path":"/b"}]})"), kNow, 1);
  EXPECT_THAT(text, HasSubstr("/a\n  … and 1 more\n"));
  EXPECT_THAT(text, Not(HasSubstr("/b\n")));
}

TEST(StatusText, TransfersShowHowFarTheyAre) {
  const auto text = statusText(
      status(R"(,"transfers":[{"method":"PUT","path":"/a","sent":512,"expectedToSend":1024},)"
             R"({"method":"GET","path":"/b","received":2048,"expectedToReceive":null}])"),
      kNow, 10);
  EXPECT_THAT(text, HasSubstr("  sending   50 % of 1.0 KiB     /a\n"));
  EXPECT_THAT(text, HasSubstr("  fetching  2.0 KiB             /b\n"));
}

TEST(StatusText, TroubleIsSaidInWords) {
  EXPECT_THAT(statusText(status(R"(,"state":"offline")"), kNow, 10), HasSubstr("not in reach"));
  EXPECT_THAT(statusText(status(R"(,"state":"unanswered","unanswered":"no connection")"), kNow, 10),
              HasSubstr("not reached yet: no connection"));
  EXPECT_THAT(statusText(status(R"(,"state":"unanswered","silent":7)"), kNow, 10),
              HasSubstr("Server:    silent for 7 s; "));
  EXPECT_THAT(statusText(status(R"(,"state":"held","held":"wrong password")"), kNow, 10),
              HasSubstr("wrong password"));
  EXPECT_THAT(statusText(status(R"(,"warnings":["look out"])"), kNow, 10),
              HasSubstr("Warning:   look out\n"));
  EXPECT_THAT(statusText(status(R"x(,"conflicts":[{"path":"/c (conflict)"}])x"), kNow, 10),
              HasSubstr("  /c (conflict)\n"));
  EXPECT_THAT(
      statusText(status(R"(,"refusedPrograms":{"count":2,"last":"updatedb"})"), kNow, 10),
      HasSubstr("files that programs in the background wanted, 2 times; last for updatedb\n"));
  EXPECT_THAT(statusText(status(R"(,"events":"off","watchedFolders":0)"), kNow, 10),
              HasSubstr("Watching:  off; "));
  EXPECT_THAT(statusText(status(R"(,"events":"failing","watchedFolders":2)"), kNow, 10),
              HasSubstr("the process that tells them cannot be had"));
  EXPECT_THAT(statusText(status(R"(,"events":"on","watchedFolders":1)"), kNow, 10),
              HasSubstr("changes at the server; 1 folder is watched\n"));
  EXPECT_THAT(statusText(status(R"(,"refusedEntries":1)"), kNow, 10),
              HasSubstr("1 entry of listings"));
  EXPECT_THAT(statusText(status(R"(,"refusedEntries":2)"), kNow, 10),
              HasSubstr("2 entries of listings"));
  EXPECT_THAT(statusText(status(R"(,"history":{"files":1,"bytes":5})"), kNow, 10),
              HasSubstr("History:   1 file, 5 B, replaced or removed; "));
  EXPECT_THAT(statusText(status(R"(,"history":{"files":1,"bytes":5,"limit":4,"full":true,)"
                                R"("unconfirmed":{"files":1,"bytes":5}})"),
                         kNow, 10),
              HasSubstr("Full:      nothing can be written: of the history, 5 B never reached the "
                        "server, and 4 B is the limit; "));
}

TEST(StatusText, NamesCannotSteerTheTerminal) {
  EXPECT_THAT(
      statusText(status(R"(,"pending":{"count":1,"bytes":0,"items":[{"path":"/\u001b[2J\n"}]})"),
                 kNow, 10),
      HasSubstr("/\\u001B[2J\\n\n"));
}

TEST(StatusText, AnAnswerOfUnknownFormIsStillShown) {
  EXPECT_NE(statusText(JSONValue(), kNow, 10), "");
  EXPECT_NE(
      statusText(*JSONValue::parse(R"({"pending":7,"transfers":{},"warnings":[1]})"), kNow, 10),
      "");
}

TEST(DurationText, IsShort) {
  EXPECT_EQ(durationText(-5), "0 s");
  EXPECT_EQ(durationText(59), "59 s");
  EXPECT_EQ(durationText(60), "1 min");
  EXPECT_EQ(durationText(3600), "1 h");
  EXPECT_EQ(durationText(3660), "1 h 1 min");
  EXPECT_EQ(durationText(86400 * 3 + 7200), "3 d 2 h");
}

TEST(StatusText, FoldersWhoseListingWasCutAreNamed) {
  const auto text = statusText(
      status(R"(,"partialFolders":[{"path":"/Home/cut"},{"path":"/Home/too"}])"), kNow, 1);
  EXPECT_THAT(text, HasSubstr("Incomplete:"));
  EXPECT_THAT(text, HasSubstr("  /Home/cut\n  … and 1 more\n"));
  EXPECT_THAT(statusText(status(R"(,"partialFolders":[])"), kNow, 1), Not(HasSubstr("Incomplete")));
}

}  // namespace
}  // namespace kestrowan::cli
