#include "host/HostLog.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace kestrowan::host
