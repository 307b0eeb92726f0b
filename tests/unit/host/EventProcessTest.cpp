#include "host/EventProcess.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <functional>
#include <thread>

#include "platform/foundation/NSError.h"

namespace kestrowan::host {
namespace {

using namespace std::chrono_literals;

bool waitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

TEST(EventProcess, AProgramThatIsNotThereIsAnError) {
  EXPECT_THROW(EventProcess("/nonexistent/program"), NSError);
}

TEST(EventProcess, OneThatEndsIsNoticedAndGivesNoAnswer) {
  EventProcess process("/bin/false");
  EXPECT_TRUE(waitFor([&] { return process.hasEnded(); }));
  EXPECT_EQ(process.answer(), std::nullopt);
  EXPECT_TRUE(process.isClosed());
  EXPECT_FALSE(process.send("packet"));
  EXPECT_EQ(::kill(process.number(), 0), 0) << "its number must not be another's yet";
}

TEST(EventProcess, WhatItDoesNotReadIsNotWaitedFor) {
  // Reads nothing from the socket: "yes" writes for ever.
  EventProcess process("/usr/bin/yes");
  while (process.send(std::string(4096, 'x'))) continue;
  EXPECT_FALSE(process.hasEnded());
  EXPECT_EQ(process.answer(), std::nullopt);
  EXPECT_FALSE(process.isClosed());
  process.kill();
  EXPECT_TRUE(waitFor([&] { return process.hasEnded(); }));
}

}  // namespace
}  // namespace kestrowan::host
