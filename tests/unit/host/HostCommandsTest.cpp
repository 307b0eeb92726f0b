#include "host/HostCommands.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <memory>

#include "async/LoopThread.h"
#include "host/Awaited.h"
#include "mount/DescribedError.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "replica/Replica.h"
#include "support/InMemoryExtension.h"
#include "support/MemoryServer.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

using namespace std::chrono_literals;
using JSON = JSONValue::Object;

class HostCommandsTest : public testing::Test {
 protected:
  HostCommandsTest() {
    server_->makeFolder("/Docs");
    server_->writeFile("/Docs/a.txt", "hello");
    server_->writeFile("/b.txt", "more text");
    extension_ = std::make_shared<test::InMemoryExtension>(*loop_, downloads_.path(), server_);
    replica_->setProvider(extension_);
  }
  ~HostCommandsTest() override {
    replica_->stop();
    const auto ran = std::make_shared<std::promise<void>>();
    loop_->post([ran] { ran->set_value(); });
    ran->get_future().wait();
    replica_.reset();
  }

  static replica::Options options() {
    replica::Options options;
    options.evictionAge = 0s;
    return options;
  }
  JSONValue ask(JSON request) const { return commands_.answer(std::move(request)); }
  std::optional<NSError> refusal(JSON request) const {
    try {
      ask(std::move(request));
      return std::nullopt;
    } catch (const NSError& error) {
      return error;
    }
  }
  replica::Rid find(const std::string& path) const {
    return awaited(*replica_, replica_->commands().find(path), kLongestLookUp);
  }
  /// Downloads a file, or changes it by one byte.
  void use(const std::string& path, bool write) const {
    auto opened = replica_->files().openFile(find(path), {.read = true, .write = write});
    const auto file = awaited(*replica_, std::move(opened), kLongestLookUp);
    if (write) {
      file->write([](int descriptor) { ASSERT_EQ(::pwrite(descriptor, "X", 1, 0), 1); });
    }
  }
  std::int64_t number(const JSONValue& answer, std::string_view member) const {
    const auto* value = answer.member(member);
    return value != nullptr && value->integer() != nullptr ? *value->integer() : -1;
  }

  const test::TemporaryDirectory state_;
  const test::TemporaryDirectory downloads_;
  const std::shared_ptr<test::MemoryServer> server_ = std::make_shared<test::MemoryServer>();
  std::unique_ptr<async::LoopThread> loop_ = std::make_unique<async::LoopThread>();
  std::unique_ptr<replica::Replica> replica_ =
      std::make_unique<replica::Replica>(state_.path(), *loop_, options());
  std::shared_ptr<test::InMemoryExtension> extension_;
  std::int64_t left_ = 0;
  bool forced_ = false;
  const HostCommands commands_{*replica_,
                               {.host = {.domain = "default",
                                         .mountPoint = "/mnt/x",
                                         .stateDirectory = "/state",
                                         .container = "/srv/work",
                                         .socket = "/run/x",
                                         .process = 7},
                                .started = 1000,
                                .status = [this] { return replica_->commands().status(); },
                                .warnings = [] { return std::vector<std::string>{"look out"}; },
                                .events = [] { return std::string("on"); },
                                .isStopping = [] { return false; },
                                .unmount =
                                    [this](bool force) {
                                      forced_ = force;
                                      if (left_ < 0) throw describedError(EBUSY, "in use by cat");
                                      return left_;
                                    }}};
};

TEST_F(HostCommandsTest, StatusSaysWhatAndWhereItIs) {
  find("/Docs/a.txt");
  const auto answer = ask({{"request", "status"}});
  EXPECT_EQ(*answer.member("domain")->string(), "default");
  EXPECT_EQ(*answer.member("mountPoint")->string(), "/mnt/x");
  EXPECT_EQ(*answer.member("stateDirectory")->string(), "/state");
  EXPECT_EQ(*answer.member("container")->string(), "/srv/work");
  EXPECT_EQ(number(answer, "process"), 7);
  EXPECT_EQ(number(answer, "started"), 1000);
  EXPECT_EQ(*answer.member("state")->string(), "online");
  EXPECT_EQ(*answer.member("warnings"), JSONValue(JSONValue::Array{"look out"}));
  EXPECT_EQ(*answer.member("events"), JSONValue("on"));
  EXPECT_EQ(*answer.member("watchedFolders"), JSONValue(0));
  EXPECT_EQ(number(*answer.member("pending"), "count"), 0);
  EXPECT_EQ(answer.member("transfers")->array()->size(), 0U);
}

TEST_F(HostCommandsTest, WaitEndsWhenEverythingIsSent) {
  use("/Docs/a.txt", true);
  const auto answer = ask({{"request", "wait"}, {"limit", 60000}});
  EXPECT_TRUE(*answer.member("synced")->boolean());
  EXPECT_EQ(number(answer, "pending"), 0);
  EXPECT_EQ(server_->read("/Docs/a.txt"), "Xello");
}

TEST_F(HostCommandsTest, WaitEndsWhenItsTimeIsOver) {
  use("/Docs/a.txt", false);
  extension_->setDown(true);
  use("/Docs/a.txt", true);
  const auto answer = ask({{"request", "wait"}, {"limit", 1}});
  EXPECT_FALSE(*answer.member("synced")->boolean());
  EXPECT_EQ(number(answer, "pending"), 1);
}

TEST_F(HostCommandsTest, WaitWithoutTimeSaysHowThingsStand) {
  use("/Docs/a.txt", false);
  auto answer = ask({{"request", "wait"}, {"limit", 0}});
  EXPECT_TRUE(*answer.member("synced")->boolean());
  extension_->setDown(true);
  use("/Docs/a.txt", true);
  answer = ask({{"request", "wait"}, {"limit", 0}});
  EXPECT_FALSE(*answer.member("synced")->boolean());
  EXPECT_EQ(number(answer, "pending"), 1);
}

TEST_F(HostCommandsTest, WaitCountsMoreRefusedChangesThanAStatusLists) {
  constexpr int kFolders = 10'050;
  std::atomic<bool> refuses = false;
  extension_->setFaults([&refuses](const test::Call& call) {
    test::Fault fault;
    if (refuses && call.kind == test::CallKind::createItem) {
      fault.effect = test::Fault::Effect::none;
      fault.error = posixError(EPERM);
    }
    return fault;
  });
  find("/Docs/a.txt");
  // Without a server nobody waits for its word.
  extension_->setDown(true);
  for (int i = 0; i < kFolders; ++i) {
    auto made = replica_->files().makeFolder(find("/Docs"), std::to_string(i), 0700);
    awaited(*replica_, std::move(made), kLongestLookUp);
  }
  refuses = true;
  extension_->setDown(false);
  ask({{"request", "retry"}, {"path", "/"}});
  JSONValue answer;
  for (int tries = 0; tries < 60 && number(answer, "refused") != kFolders; ++tries) {
    answer = ask({{"request", "wait"}, {"limit", 1000}});
  }
  EXPECT_EQ(number(answer, "pending"), kFolders);
  EXPECT_EQ(number(answer, "refused"), kFolders);
}

TEST_F(HostCommandsTest, EvictGivesBackSpaceAndSaysWhatStays) {
  use("/Docs/a.txt", false);
  use("/b.txt", false);
  ask({{"request", "pin"}, {"path", "/b.txt"}});
  auto answer = ask({{"request", "evict"}, {"path", "/"}});
  EXPECT_EQ(number(answer, "evicted"), 1);
  EXPECT_EQ(number(answer, "bytes"), 5);
  EXPECT_EQ(number(answer, "pinned"), 1);
  ask({{"request", "unpin"}, {"path", "/b.txt"}});
  answer = ask({{"request", "evict"}, {"path", "/b.txt"}});
  EXPECT_EQ(number(answer, "evicted"), 1);
}

TEST_F(HostCommandsTest, RetryTriesARefusedChangeAgain) {
  extension_->setFaults([](const test::Call& call) {
    test::Fault fault;
    if (call.kind == test::CallKind::modifyItem) {
      fault.effect = test::Fault::Effect::none;
      fault.error = posixError(EPERM);
    }
    return fault;
  });
  use("/b.txt", true);
  const auto refused = [&] {
    const auto answer = ask({{"request", "wait"}, {"limit", 50}});
    return number(answer, "refused") == 1;
  };
  const auto end = std::chrono::steady_clock::now() + 60s;
  while (!refused() && std::chrono::steady_clock::now() < end) {
  }
  ASSERT_TRUE(refused());
  extension_->setFaults({});
  ask({{"request", "retry"}, {"path", "/"}});
  EXPECT_TRUE(*ask({{"request", "wait"}, {"limit", 60000}}).member("synced")->boolean());
  EXPECT_EQ(server_->read("/b.txt"), "Xore text");
}

TEST_F(HostCommandsTest, DiscardNeedsToBeConfirmed) {
  use("/b.txt", false);
  extension_->setDown(true);
  use("/b.txt", true);
  for (const JSONValue& confirm :
       {JSONValue(), JSONValue(false), JSONValue("true"), JSONValue(1)}) {
    const auto error = refusal({{"request", "discard"}, {"path", "/b.txt"}, {"confirm", confirm}});
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->is(NSPOSIXErrorDomain, EPERM));
  }
  EXPECT_EQ(replica_->commands().status().pendingCount, 1);
  const auto answer = ask({{"request", "discard"}, {"path", "/b.txt"}, {"confirm", true}});
  EXPECT_EQ(number(answer, "discarded"), 1);
  EXPECT_EQ(replica_->commands().status().pendingCount, 0);
  EXPECT_EQ(replica_->commands().status().history.files, 2)
      << "the version before, and what was discarded";
  EXPECT_EQ(replica_->commands().status().history.unconfirmedFiles, 1);
}

TEST_F(HostCommandsTest, ClearingTheHistoryNeedsToBeConfirmed) {
  use("/b.txt", true);
  ask({{"request", "wait"}});
  replica_->commands().discard(replica::kRootRid);
  use("/b.txt", true);
  const auto before = replica_->commands().status().history.files;
  ASSERT_GT(before, 0);
  for (const JSONValue& confirm :
       {JSONValue(), JSONValue(false), JSONValue("true"), JSONValue(1)}) {
    const auto error = refusal({{"request", "clearHistory"}, {"confirm", confirm}});
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->is(NSPOSIXErrorDomain, EPERM));
  }
  EXPECT_EQ(replica_->commands().status().history.files, before);
  const auto answer = ask({{"request", "clearHistory"}, {"confirm", true}});
  EXPECT_EQ(number(answer, "cleared"), before);
  EXPECT_EQ(number(ask({{"request", "history"}}), "files"), 0);
}

TEST_F(HostCommandsTest, WhatIsNotInTheHistoryCannotBeRestored) {
  const auto error = refusal({{"request", "restore"}, {"id", 4711}});
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(NSPOSIXErrorDomain, ENOENT));
  const auto nonsense = refusal({{"request", "restore"}, {"id", "x"}});
  ASSERT_TRUE(nonsense);
  EXPECT_TRUE(nonsense->is(NSPOSIXErrorDomain, EBADMSG));
}

TEST_F(HostCommandsTest, UnmountIsTheHosts) {
  left_ = 3;
  EXPECT_EQ(number(ask({{"request", "unmount"}}), "left"), 3);
  EXPECT_FALSE(forced_);
  ask({{"request", "unmount"}, {"force", true}});
  EXPECT_TRUE(forced_);
  left_ = -1;
  const auto error = refusal({{"request", "unmount"}});
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedDescription(), "in use by cat");
}

TEST_F(HostCommandsTest, AnItemThatIsNotThereIsAnError) {
  const auto error = refusal({{"request", "evict"}, {"path", "/Docs/none.txt"}});
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(NSPOSIXErrorDomain, ENOENT));
}

TEST_F(HostCommandsTest, WhatIsNoRequestIsRefused) {
  for (const auto& request :
       {JSON{}, JSON{{"request", "explode"}}, JSON{{"request", 7}},
        JSON{{"request", "wait"}, {"limit", "long"}}, JSON{{"request", "evict"}},
        JSON{{"request", "evict"}, {"path", "relative"}},
        JSON{{"request", "evict"}, {"pathHex", "2f6100"}}, JSON{{"request", "pin"}, {"path", 7}}}) {
    EXPECT_TRUE(refusal(request)) << JSONValue(request).serialized();
  }
}

}  // namespace
}  // namespace kestrowan::host
