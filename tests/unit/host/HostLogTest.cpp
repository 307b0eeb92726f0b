#include "host/HostLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace kestrowan::host {
namespace {

class LimitedLogTest : public testing::Test {
 protected:
  struct Sink : LogSink {
    void error(std::string_view, std::string_view, std::string_view format,
               std::span<const std::string_view> arguments) override {
      lines.push_back(renderedMessage(format, arguments));
    }
    std::vector<std::string> lines;
  };
  void say(std::string_view format, std::string_view argument = "") {
    const std::string_view arguments[] = {argument};
    log_.error("subsystem", "category", format, arguments);
  }

  std::chrono::steady_clock::time_point now_{};
  const std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
  LimitedLog log_{sink_, [this] { return now_; }};
};

TEST_F(LimitedLogTest, FewMessagesArePassedOnAsTheyAre) {
  say("a %{public}s", "x\n");
  say("b");
  EXPECT_EQ(sink_->lines, (std::vector<std::string>{"a x\\n", "b"}));
}

TEST_F(LimitedLogTest, ManyOfOneKindAreCutOffAndCounted) {
  for (unsigned i = 0; i < LimitedLog::kMostAMinute + 30; ++i) say("a %{public}s", "x");
  EXPECT_EQ(sink_->lines.size(), LimitedLog::kMostAMinute);
  now_ += std::chrono::seconds(60);
  say("a %{public}s", "y");
  ASSERT_EQ(sink_->lines.size(), LimitedLog::kMostAMinute + 2);
  EXPECT_EQ(sink_->lines[LimitedLog::kMostAMinute], "left out 30 more of: a %{public}s");
  EXPECT_EQ(sink_->lines.back(), "a y");
}

TEST_F(LimitedLogTest, OneKindDoesNotSilenceAnother) {
  for (unsigned i = 0; i < LimitedLog::kMostAMinute + 1; ++i) say("a");
  say("b");
  EXPECT_EQ(sink_->lines.back(), "b");
}

TEST(HostLog, ALineIsEscapedAndWrittenAtOnce) {
  testing::internal::CaptureStderr();
  hostLog("name\n\x1b[31m");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "kestrowan: name\\n\\u001B[31m\n");
}

/// What is logged to the host's sink in a process of its own.
std::string logged(bool extensionLog, bool dated) {
  testing::internal::CaptureStderr();
  const pid_t child = ::fork();
  if (child == 0) {
    if (dated) dateHostLog();
    const auto sink = hostSink(extensionLog);
    const std::string_view argument[] = {"a\nb"};
    sink->error("com.kestrowan.app.FileProvider", "replica", "kept %{public}s", argument);
    sink->error("com.kestrowan.app.FileProvider", "ext", "failed", {});
    hostLog("mounted");
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  return testing::internal::GetCapturedStderr();
}

TEST(HostSink, EverythingIsWrittenInOneFormAndNothingIsCalledAnError) {
  EXPECT_EQ(logged(false, false), "kestrowan: kept a\\nb\nkestrowan: mounted\n");
  EXPECT_EQ(logged(true, false),
            "kestrowan: kept a\\nb\nkestrowan: extension: failed\nkestrowan: mounted\n");
}

TEST(HostSink, LinesBearDateAndTimeWhenThatIsWanted) {
  const std::string line =
      "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} kestrowan: [a-z: \\\\]+\n";
  EXPECT_THAT(logged(true, true), testing::MatchesRegex("(" + line + "){3}"));
}

}  // namespace
}  // namespace kestrowan::host
