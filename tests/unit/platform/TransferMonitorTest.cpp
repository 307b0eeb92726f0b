#include "platform/network/TransferMonitor.h"

#include <gtest/gtest.h>

#include <thread>

namespace kestrowan {
namespace {

TEST(TransferMonitorTest, TransfersAreListedWhileTheyLive) {
  TransferMonitor monitor;
  EXPECT_TRUE(monitor.transfers().empty());
  {
    TransferMonitor::Entry first(monitor, {"GET", "https://h/a", 0, 0, std::nullopt, std::nullopt});
    EXPECT_EQ(monitor.transfers().size(), 1U);
    {
      TransferMonitor::Entry second(monitor, {"PUT", "https://h/b", 0, 0, 10, std::nullopt});
      EXPECT_EQ(monitor.transfers().size(), 2U);
    }
    ASSERT_EQ(monitor.transfers().size(), 1U);
    EXPECT_EQ(monitor.transfers()[0].httpMethod, "GET");
    EXPECT_EQ(monitor.transfers()[0].url, "https://h/a");
  }
  EXPECT_TRUE(monitor.transfers().empty());
}

TEST(TransferMonitorTest, CountsAreThoseLastGiven) {
  TransferMonitor monitor;
  TransferMonitor::Entry entry(monitor, {"PUT", "https://h/b", 0, 0, 100, std::nullopt});
  entry.sent(40);
  entry.sent(100);
  entry.expectToReceive(7);
  entry.received(3);
  const auto status = monitor.transfers().at(0);
  EXPECT_EQ(status.bytesSent, 100);
  EXPECT_EQ(status.bytesExpectedToSend, 100);
  EXPECT_EQ(status.bytesReceived, 3);
  EXPECT_EQ(status.bytesExpectedToReceive, 7);
}

TEST(TransferMonitorTest, TheServerIsSilentWhileARequestWaitsAndNothingMoves) {
  TransferMonitor monitor;
  EXPECT_EQ(monitor.silence().count(), 0);
  TransferMonitor::Entry first(monitor, {"GET", "https://h/a", 0, 0, std::nullopt, std::nullopt});
  while (monitor.silence().count() == 0) std::this_thread::yield();
  first.moved(10);
  // Until the next look at it a second may pass.
  const auto before = TransferMonitor::Clock::now();
  const auto silence = monitor.silence();
  EXPECT_TRUE(silence.count() == 0 || TransferMonitor::Clock::now() - before >= silence);
  while (monitor.silence().count() == 0) std::this_thread::yield();
  first.moved(10);
  EXPECT_GE(monitor.silence().count(), 1) << "nothing more has moved";
}

TEST(TransferMonitorTest, WithoutRequestsTheServerIsNotSilent) {
  TransferMonitor monitor;
  {
    TransferMonitor::Entry first(monitor, {"GET", "https://h/a", 0, 0, std::nullopt, std::nullopt});
    while (monitor.silence().count() == 0) std::this_thread::yield();
  }
  EXPECT_EQ(monitor.silence().count(), 0);
}

TEST(TransferMonitorTest, BytesOfAllTransfersAddUpAndStay) {
  TransferMonitor monitor;
  EXPECT_EQ(monitor.bytesMoved(), 0);
  {
    TransferMonitor::Entry first(monitor, {"GET", "https://h/a", 0, 0, std::nullopt, std::nullopt});
    TransferMonitor::Entry second(monitor,
                                  {"GET", "https://h/b", 0, 0, std::nullopt, std::nullopt});
    first.moved(10);
    second.moved(5);
    first.moved(30);
    // Another connection carries it from its beginning.
    first.moved(20);
    EXPECT_EQ(monitor.bytesMoved(), 35);
  }
  EXPECT_EQ(monitor.bytesMoved(), 35);
}

TEST(TransferMonitorTest, LengthsAreUnknownUntilTold) {
  TransferMonitor monitor;
  TransferMonitor::Entry entry(monitor, {"GET", "https://h/a", 0, 0, std::nullopt, std::nullopt});
  EXPECT_EQ(monitor.transfers().at(0).bytesExpectedToReceive, std::nullopt);
  EXPECT_EQ(monitor.transfers().at(0).bytesExpectedToSend, std::nullopt);
}

TEST(TransferMonitorTest, ManyThreadsMayReportAndLook) {
  TransferMonitor monitor;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 1; j <= 200; ++j) {
        TransferMonitor::Entry entry(monitor, {"GET", "u", 0, 0, std::nullopt, std::nullopt});
        entry.received(j);
        for (const auto& status : monitor.transfers()) EXPECT_LE(status.bytesReceived, 200);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(monitor.transfers().empty());
}

TEST(TransferMonitorTest, TheProcessHasOneMonitor) {
  EXPECT_EQ(&TransferMonitor::shared(), &TransferMonitor::shared());
}

}  // namespace
}  // namespace kestrowan
