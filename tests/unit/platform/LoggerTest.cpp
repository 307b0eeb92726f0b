#include "platform/foundation/Logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>
#include <vector>

#include "platform/base/UniqueFd.h"

namespace kestrowan {
namespace {

struct Message {
  std::string subsystem;
  std::string category;
  std::string text;
};

class RecordingSink : public LogSink {
 public:
  void error(std::string_view subsystem, std::string_view category, std::string_view format,
             std::span<const std::string_view> arguments) override {
    messages.push_back(
        {std::string(subsystem), std::string(category), renderedMessage(format, arguments)});
  }
  std::vector<Message> messages;
};

std::string rendered(std::string_view format, std::vector<std::string_view> arguments) {
  return renderedMessage(format, arguments);
}

/// What `body` writes to standard error.
template <typename Body>
std::string standardErrorOf(Body body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

class LoggerTest : public testing::Test {
 protected:
  void TearDown() override { LogSink::setShared(nullptr); }
  const Logger logger{"com.example.app", "ext"};
};

TEST_F(LoggerTest, MessagesGoToTheSharedSink) {
  auto sink = std::make_shared<RecordingSink>();
  LogSink::setShared(sink);
  EXPECT_EQ(LogSink::shared(), sink);
  logger.error("%{public}s failed: %{public}s", {"list", "no"});
  logger.error("plain");
  ASSERT_EQ(sink->messages.size(), 2U);
  EXPECT_EQ(sink->messages[0].subsystem, "com.example.app");
  EXPECT_EQ(sink->messages[0].category, "ext");
  EXPECT_EQ(sink->messages[0].text, "list failed: no");
  EXPECT_EQ(sink->messages[1].text, "plain");
}

TEST_F(LoggerTest, StandardErrorGetsOneLineAMessage) {
  const auto written = standardErrorOf([&] { logger.error("cannot list %{public}s", {"/a\nb"}); });
  EXPECT_EQ(written, "[com.example.app:ext] error: cannot list /a\\nb\n");
}

TEST_F(LoggerTest, NullSinkBringsBackStandardError) {
  LogSink::setShared(std::make_shared<RecordingSink>());
  LogSink::setShared(nullptr);
  EXPECT_EQ(standardErrorOf([&] { logger.error("back"); }), "[com.example.app:ext] error: back\n");
}

TEST_F(LoggerTest, LinesOfManyThreadsDoNotMix) {
  const std::string name(2000, 'x');
  const auto written = standardErrorOf([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int j = 0; j < 20; ++j) logger.error("%{public}s", {name});
      });
    }
    for (auto& thread : threads) thread.join();
  });
  std::string expected;
  for (int i = 0; i < 80; ++i) expected += "[com.example.app:ext] error: " + name + "\n";
  EXPECT_EQ(written, expected);
}

TEST_F(LoggerTest, ClosedStandardErrorLosesTheMessageOnly) {
  const int saved = ::dup(STDERR_FILENO);
  ASSERT_GE(saved, 0);
  ::close(STDERR_FILENO);
  logger.error("nobody reads this");
  EXPECT_EQ(::dup2(saved, STDERR_FILENO), STDERR_FILENO);
  ::close(saved);
}

TEST(RenderedMessageTest, ArgumentsReplacePlaceholdersInOrder) {
  EXPECT_EQ(rendered("%{public}s and %{public}s", {"a", "b"}), "a and b");
  EXPECT_EQ(rendered("%{public}s%{public}s", {"%{public}s", "b"}), "%{public}sb");
  EXPECT_EQ(rendered("", {}), "");
}

TEST(RenderedMessageTest, MissingAndSurplusArgumentsLeaveTheRestAsItIs) {
  EXPECT_EQ(rendered("%{public}s %{public}s", {"a"}), "a %{public}s");
  EXPECT_EQ(rendered("none", {"a"}), "none");
  EXPECT_EQ(rendered("100% %d", {}), "100% %d");
}

TEST(RenderedMessageTest, OnlyArgumentsAreEscaped) {
  EXPECT_EQ(rendered("a\t%{public}s", {"\t"}), "a\t\\t");
}

TEST(EscapedForDisplayTest, ControlCharactersAreEscaped) {
  EXPECT_EQ(escapedForDisplay("\n\r\t"), "\\n\\r\\t");
  EXPECT_EQ(escapedForDisplay(std::string("\0\x1B[31m\x7F", 7)), "\\u0000\\u001B[31m\\u007F");
  EXPECT_EQ(escapedForDisplay("\xC2\x80\xC2\x85\xC2\x9F"), "\\u0080\\u0085\\u009F");
}

TEST(EscapedForDisplayTest, DirectionalControlsAreEscaped) {
  EXPECT_EQ(escapedForDisplay("\xE2\x80\xAE"
                              "fdp.exe"),
            "\\u202Efdp.exe");
  EXPECT_EQ(escapedForDisplay("\xD8\x9C\xE2\x80\x8E\xE2\x80\x8F\xE2\x81\xA6\xE2\x81\xA9"),
            "\\u061C\\u200E\\u200F\\u2066\\u2069");
}

TEST(EscapedForDisplayTest, BytesThatAreNotUTF8AreEscaped) {
  EXPECT_EQ(escapedForDisplay("a\xFFz\xE2\x82"), "a\\xFFz\\xE2\\x82");
}

TEST(EscapedForDisplayTest, EverythingElseIsKept) {
  const std::string text = " a\\\"'%/\xC2\xA0\xC3\xA9\xE2\x80\x8B\xE6\x97\xA5\xF0\x9F\x98\x80";
  EXPECT_EQ(escapedForDisplay(text), text);
}

}  // namespace
}  // namespace kestrowan
