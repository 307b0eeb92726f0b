#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "NetworkTest.h"
#include "platform/network/TransferMonitor.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

/// Has a temporary directory of its own.
class DownloadTest : public testing::Test {
 protected:
  DownloadTest() { ::setenv("TMPDIR", directory_.path().c_str(), 1); }
  ~DownloadTest() override { ::unsetenv("TMPDIR"); }

  const std::string& directory() const { return directory_.path(); }
  std::ptrdiff_t fileCount() const {
    const std::filesystem::directory_iterator entries(directory());
    return std::count_if(begin(entries), end(entries),
                         [](const auto& entry) { return entry.is_regular_file(); });
  }

  static std::string contents(const NSURL& file) {
    std::ifstream stream(file.path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

 private:
  TemporaryDirectory directory_;
};

std::string filled(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 256);
  return text;
}

TEST_F(DownloadTest, BodyBecomesAPrivateFileInTheTemporaryDirectory) {
  ScriptedServer server(R"({"routes": {"GET /big": {"fill": 5000000}, "GET /empty": {}}})");
  Client client(server);
  const auto big = resultOf(client.session().downloadTask(client.request("GET", "/big")));
  EXPECT_EQ(Client::statusOf(big.response), 200);
  EXPECT_EQ(std::filesystem::path(big.location.path()).parent_path(), directory());
  EXPECT_TRUE(contents(big.location) == filled(5000000));
  struct stat status {};
  ASSERT_EQ(::stat(big.location.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(status.st_nlink, 1u);
  const auto empty = resultOf(client.session().downloadTask(client.request("GET", "/empty")));
  EXPECT_EQ(contents(empty.location), "");
  EXPECT_NE(empty.location, big.location);
  EXPECT_EQ(fileCount(), 2);
}

TEST_F(DownloadTest, RefusalComesWithItsBody) {
  ScriptedServer server(R"({"responses": [{"status": 404, "body": "no such file"}]})");
  Client client(server);
  const auto download = resultOf(client.session().downloadTask(client.request("GET", "/")));
  EXPECT_EQ(Client::statusOf(download.response), 404);
  EXPECT_EQ(contents(download.location), "no such file");
}

TEST_F(DownloadTest, UnfinishedDownloadHasNoName) {
  ScriptedServer server(R"({"responses": [{"fill": 100000, "pauseAt": 50000, "pauseFor": "x"}]})");
  Client client(server);
  auto download = started(client.session().downloadTask(client.request("GET", "/")));
  const auto received = [] {
    const auto transfers = TransferMonitor::shared().transfers();
    return transfers.empty() ? 0 : transfers.front().bytesReceived;
  };
  while (received() == 0) std::this_thread::yield();
  EXPECT_EQ(fileCount(), 0);
  EXPECT_EQ(TransferMonitor::shared().transfers().front().bytesExpectedToReceive, 100000);
  server.release("x");
  EXPECT_EQ(contents(download.get().location).size(), 100000u);
  EXPECT_TRUE(TransferMonitor::shared().transfers().empty());
}

TEST_F(DownloadTest, FailedDownloadLeavesNoFile) {
  for (const auto* answer : {R"({"fill": 1000000, "cut": 500000})", R"({"cut": 0})",
                             R"({"raw": "x", "then": "close"})"}) {
    ScriptedServer server(std::string("{\"responses\": [") + answer + "]}");
    Client client(server);
    EXPECT_NE(errorOf(client.session().downloadTask(client.request("GET", "/"))), 0);
    EXPECT_EQ(fileCount(), 0);
  }
}

TEST_F(DownloadTest, NothingIsAskedWithoutAPlaceForTheFile) {
  ScriptedServer server;
  Client client(server);
  ::setenv("TMPDIR", (directory() + "/none").c_str(), 1);
  EXPECT_EQ(errorOf(client.session().downloadTask(client.request("GET", "/"))),
            NSURLErrorCannotCreateFile);
  EXPECT_EQ(server.eventCount("connected"), 0u);
}

void expectNoRoom(Client& client, const std::string& reason) {
  try {
    resultOf(client.session().downloadTask(client.request("GET", "/")));
    ADD_FAILURE() << "no error";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSURLErrorDomain, NSURLErrorCannotWriteToFile));
    EXPECT_EQ(error.userInfo().at("NSUnderlyingError"), reason);
  }
}

TEST_F(DownloadTest, FullDiskIsAnErrorThatSaysSo) {
  if (::mount("none", directory().c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "needs the right to mount a small file system";
  }
  {
    ScriptedServer server(R"({"responses": [{"fill": 3000000}, {"fill": 1000}]})");
    Client client(server);
    expectNoRoom(client, "No space left on device");
    EXPECT_EQ(fileCount(), 0);
    resultOf(client.session().downloadTask(client.request("GET", "/")));
    EXPECT_EQ(fileCount(), 1);
  }
  ::umount2(directory().c_str(), MNT_DETACH);
}

TEST_F(DownloadTest, FileBeyondTheProcessesLimitIsAnError) {
  ScriptedServer server(R"({"responses": [{"fill": 3000000}]})");
  Client client(server);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = before;
  small.rlim_cur = 1000000;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  expectNoRoom(client, "File too large");
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(fileCount(), 0);
}

}  // namespace
}  // namespace kestrowan::test
