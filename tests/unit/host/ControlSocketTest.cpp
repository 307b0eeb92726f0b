#include "host/ControlSocket.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/ControlClient.h"
#include "host/LocalAddress.h"
#include "mount/DescribedError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kLimit = 60s;

JSONValue echo(const JSONValue& request) {
  return JSONValue::Object{{"echo", request}};
}

const JSONValue kRequest = JSONValue::Object{{"request", "x"}, {"number", 7}};

class ControlSocketTest : public testing::Test {
 protected:
  UniqueFd connected() const {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const LocalAddress address(path_);
    EXPECT_EQ(::connect(socket.get(), address.get(), address.size()), 0);
    return socket;
  }
  /// Sends `text` and reads until the other end closes.
  std::string answerTo(const std::string& text) const {
    const auto socket = connected();
    for (std::size_t sent = 0; sent < text.size();) {
      const auto count = ::send(socket.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) break;
      sent += static_cast<std::size_t>(count);
    }
    return readAll(socket);
  }
  static std::string readAll(const UniqueFd& socket) {
    std::string answer;
    char buffer[4096];
    while (true) {
      const auto count = ::recv(socket.get(), buffer, sizeof buffer, 0);
      if (count <= 0) return answer;
      answer.append(buffer, static_cast<std::size_t>(count));
    }
  }
  static std::int64_t errorCode(const std::string& answer) {
    const auto form = JSONValue::parse(answer);
    const auto* error = form ? form->member("error") : nullptr;
    const auto* code = error != nullptr ? error->member("code") : nullptr;
    return code != nullptr && code->integer() != nullptr ? *code->integer() : 0;
  }
  std::int64_t errorOfAsking(std::chrono::milliseconds limit = kLimit) const {
    try {
      askHost(path_, kRequest, limit);
      return 0;
    } catch (const NSError& error) {
      EXPECT_EQ(error.domain(), NSPOSIXErrorDomain);
      return error.code();
    }
  }

  test::TemporaryDirectory directory_;
  const std::string path_ = directory_.path() + "/control.sock";
};

TEST_F(ControlSocketTest, ARequestIsAnswered) {
  const ControlSocket socket(path_, echo);
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
}

TEST_F(ControlSocketTest, OnlyTheUserMayUseTheSocketAndItGoesWithTheHost) {
  {
    const ControlSocket socket(path_, echo);
    struct stat status {};
    ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
  }
  EXPECT_FALSE(fs::exists(fs::symlink_status(path_)));
  EXPECT_EQ(errorOfAsking(), ECONNREFUSED);
}

TEST_F(ControlSocketTest, WhatAKilledHostLeftIsReplaced) {
  std::ofstream(path_) << "left";
  const ControlSocket socket(path_, echo);
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
}

TEST_F(ControlSocketTest, APathThatIsTooLongForAnAddressWorks) {
  std::string deep = directory_.path();
  for (int i = 0; i < 3; ++i) deep += "/" + std::string(100, 'd');
  fs::create_directories(deep);
  const auto path = deep + "/control.sock";
  const ControlSocket socket(path, echo);
  EXPECT_EQ(askHost(path, kRequest, kLimit), echo(kRequest));
}

TEST_F(ControlSocketTest, WhatIsNoRequestIsAnsweredWithAnError) {
  const ControlSocket socket(path_, echo);
  for (const std::string text :
       {"\n", "garbage\n", "[1]\n", "\"x\"\n", "{\"a\":\n", "\xff\xfe\n"}) {
    EXPECT_EQ(errorCode(answerTo(text)), EBADMSG) << text;
  }
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
}

TEST_F(ControlSocketTest, ARequestThatIsTooLongIsRefused) {
  const ControlSocket socket(path_, echo);
  const std::string frame = R"({"request":""})";
  const auto request = [&](std::size_t size) {
    return R"({"request":")" + std::string(size - frame.size(), 'x') + "\"}\n";
  };
  EXPECT_NE(answerTo(request(ControlSocket::kLongestRequest)).find("echo"), std::string::npos);
  EXPECT_EQ(errorCode(answerTo(request(ControlSocket::kLongestRequest + 1))), EMSGSIZE);
}

TEST_F(ControlSocketTest, ARequestWithoutAnEndIsNotReadForever) {
  const ControlSocket socket(path_, echo);
  // Whether the answer still gets through depends on what was unread when the socket was closed.
  answerTo(std::string(4 << 20, 'x'));
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
}

TEST_F(ControlSocketTest, ASilentClientHoldsNobodyUpAndIsLetGo) {
  const ControlSocket socket(path_, echo, 500ms);
  std::vector<UniqueFd> silent;
  for (int i = 0; i < 10; ++i) silent.push_back(connected());
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
  for (const auto& each : silent) EXPECT_EQ(errorCode(readAll(each)), EMSGSIZE);
}

TEST_F(ControlSocketTest, AClientThatDripsItsRequestIsLetGo) {
  const ControlSocket socket(path_, echo, 300ms);
  const auto slow = connected();
  while (::send(slow.get(), "x", 1, MSG_NOSIGNAL) == 1) std::this_thread::yield();
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
}

TEST_F(ControlSocketTest, AClientThatTakesNoAnswerHoldsNobodyUp) {
  const ControlSocket socket(
      path_,
      [](const JSONValue&) {
        return JSONValue::Object{{"text", std::string(8 << 20, 'x')}};
      },
      500ms);
  const auto deaf = connected();
  ASSERT_EQ(::send(deaf.get(), "{}\n", 3, MSG_NOSIGNAL), 3);
  EXPECT_EQ(askHost(path_, kRequest, kLimit).member("text")->string()->size(), 8U << 20);
}

TEST_F(ControlSocketTest, ClientsThatSayNothingGiveWayToOneThatDoes) {
  const ControlSocket socket(path_, echo, kLimit);
  std::vector<UniqueFd> silent;
  for (int i = 0; i < 200; ++i) {
    silent.push_back(connected());
    ASSERT_EQ(::send(silent.back().get(), "{\"half\":", i % 2 == 0 ? 0 : 8, MSG_NOSIGNAL),
              i % 2 == 0 ? 0 : 8);
  }
  EXPECT_EQ(askHost(path_, kRequest, kLimit), echo(kRequest));
  // The oldest one has been let go, the newest one can still say something.
  EXPECT_EQ(readAll(silent.front()), "");
  ASSERT_EQ(::send(silent.back().get(), "1}\n", 3, MSG_NOSIGNAL), 3);
  EXPECT_NE(readAll(silent.back()).find("half"), std::string::npos);
}

/// Requests name their lane, and those that wait do so until they are let go.
class ControlLanesTest : public ControlSocketTest {
 protected:
  static ControlLane laneOf(const JSONValue& request) {
    const auto* name = request.member("lane")->string();
    if (*name == "quick") return ControlLane::quick;
    return *name == "ending" ? ControlLane::ending : ControlLane::waiting;
  }
  JSONValue answer(const JSONValue& request) {
    std::unique_lock lock(mutex_);
    ++begun_;
    changed_.notify_all();
    const bool waits = request.member("waits") != nullptr;
    if (waits) changed_.wait_for(lock, kLimit, [this] { return letGo_; });
    return request;
  }
  void waitForBegun(std::size_t count) {
    std::unique_lock lock(mutex_);
    ASSERT_TRUE(changed_.wait_for(lock, kLimit, [&] { return begun_ >= count; }));
  }
  void letGo() {
    std::lock_guard lock(mutex_);
    letGo_ = true;
    changed_.notify_all();
  }
  std::int64_t errorOfAsking(const std::string& lane) const {
    try {
      askHost(path_, JSONValue::Object{{"lane", lane}}, kLimit);
      return 0;
    } catch (const NSError& error) {
      return error.code();
    }
  }
  std::vector<UniqueFd> keepWaiting(const std::string& lane, std::size_t count) {
    std::vector<UniqueFd> clients;
    const auto request = R"({"lane":")" + lane + R"(","waits":true})" + "\n";
    for (std::size_t i = 0; i < count; ++i) {
      clients.push_back(connected());
      EXPECT_EQ(::send(clients.back().get(), request.data(), request.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(request.size()));
    }
    return clients;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t begun_ = 0;
  bool letGo_ = false;
  std::optional<ControlSocket> socket_{std::in_place, path_,
                                       [this](const JSONValue& request) { return answer(request); },
                                       std::chrono::milliseconds(kLimit), &laneOf};
};

TEST_F(ControlLanesTest, RequestsThatWaitTakeThePlacesOfNoOthers) {
  const auto waiting = keepWaiting("waiting", ControlWorkers::kMostWaiting);
  waitForBegun(ControlWorkers::kMostWaiting);
  EXPECT_EQ(errorOfAsking("waiting"), EBUSY);
  EXPECT_EQ(errorOfAsking("quick"), 0);
  EXPECT_EQ(errorOfAsking("ending"), 0);
  letGo();
  for (const auto& client : waiting) EXPECT_NE(readAll(client).find("waits"), std::string::npos);
  EXPECT_EQ(errorOfAsking("waiting"), 0);
}

TEST_F(ControlLanesTest, QuickRequestsWaitTheirTurn) {
  const auto slow = keepWaiting("quick", ControlWorkers::kMostQuick + 3);
  waitForBegun(ControlWorkers::kMostQuick);
  letGo();
  for (const auto& client : slow) EXPECT_NE(readAll(client).find("waits"), std::string::npos);
}

TEST_F(ControlLanesTest, AThreadThatCannotBeMadeIsAnErrorOfThatRequestAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as somebody else";
  socket_.reset();
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0777), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setuid(65534) != 0) ::_exit(2);
    const ControlSocket socket(path_, echo, kLimit, &laneOf);
    // The user has one process at least.
    const rlimit none{0, 0};
    if (::setrlimit(RLIMIT_NPROC, &none) != 0) ::_exit(3);
    if (errorOfAsking("waiting") != EAGAIN) ::_exit(4);
    if (errorOfAsking("quick") != 0) ::_exit(5);
    if (errorOfAsking("ending") != 0) ::_exit(6);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ControlSocketTest, WhateverTheHandlerThrowsIsTheAnswer) {
  const ControlSocket socket(path_, [](const JSONValue& request) -> JSONValue {
    if (request.member("memory") != nullptr) throw std::bad_alloc();
    throw std::logic_error("broken");
  });
  EXPECT_EQ(errorCode(answerTo("{\"memory\":1}\n")), ENOMEM);
  EXPECT_EQ(errorCode(answerTo("{}\n")), EIO);
}

TEST_F(ControlSocketTest, RequestsAreAnsweredAtTheSameTime) {
  std::mutex mutex;
  std::condition_variable changed;
  int running = 0;
  const ControlSocket socket(path_, [&](const JSONValue& request) {
    std::unique_lock lock(mutex);
    ++running;
    changed.notify_all();
    changed.wait_for(lock, kLimit, [&] { return running == 2; });
    EXPECT_EQ(running, 2);
    return request;
  });
  std::thread other([&] { askHost(path_, kRequest, kLimit); });
  askHost(path_, kRequest, kLimit);
  other.join();
}

TEST_F(ControlSocketTest, AnErrorOfTheHandlerIsThrownAtTheClient) {
  const ControlSocket socket(
      path_, [](const JSONValue&) -> JSONValue { throw describedError(ENOENT, "no such thing"); });
  try {
    askHost(path_, kRequest, kLimit);
    FAIL();
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSPOSIXErrorDomain, ENOENT));
    EXPECT_EQ(error.localizedDescription(), "no such thing");
  }
}

TEST_F(ControlSocketTest, TheEndOfTheHostWaitsForAnswersButNotForRequests) {
  std::atomic<bool> entered = false;
  std::atomic<bool> leave = false;
  auto socket = std::make_unique<ControlSocket>(
      path_,
      [&](const JSONValue& request) {
        entered = true;
        while (!leave) std::this_thread::yield();
        return request;
      },
      kLimit);
  const auto silent = connected();
  JSONValue answer;
  std::thread asking([&] { answer = askHost(path_, kRequest, kLimit); });
  while (!entered) std::this_thread::yield();
  std::thread ending([&] { socket.reset(); });
  leave = true;
  ending.join();
  asking.join();
  EXPECT_EQ(answer, kRequest);
}

TEST_F(ControlSocketTest, AskingASilentHostEndsInTime) {
  UniqueFd deaf(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const LocalAddress address(path_);
  ASSERT_EQ(::bind(deaf.get(), address.get(), address.size()), 0);
  ASSERT_EQ(::listen(deaf.get(), 1), 0);
  EXPECT_EQ(errorOfAsking(50ms), ETIMEDOUT);
}

TEST_F(ControlSocketTest, AHostThatEndsWithoutAnAnswerIsNoticed) {
  UniqueFd listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const LocalAddress address(path_);
  ASSERT_EQ(::bind(listening.get(), address.get(), address.size()), 0);
  ASSERT_EQ(::listen(listening.get(), 1), 0);
  std::thread host([&] {
    const UniqueFd connection(::accept(listening.get(), nullptr, nullptr));
    char request[64];
    EXPECT_GT(::recv(connection.get(), request, sizeof request, 0), 0);
  });
  EXPECT_EQ(errorOfAsking(), ECONNRESET);
  host.join();
}

TEST_F(ControlSocketTest, AnotherUserIsNotAnswered) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as somebody else";
  std::atomic<int> handled = 0;
  const ControlSocket socket(path_, [&](const JSONValue& request) {
    ++handled;
    return request;
  });
  // Even with every permission out of the way.
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0777), 0);
  ASSERT_EQ(::chmod(path_.c_str(), 0777), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setuid(65534) != 0) ::_exit(2);
    const UniqueFd connection(::socket(AF_UNIX, SOCK_STREAM, 0));
    const LocalAddress address(path_);
    if (::connect(connection.get(), address.get(), address.size()) != 0) ::_exit(3);
    ::send(connection.get(), "{}\n", 3, MSG_NOSIGNAL);
    ::_exit(readAll(connection).empty() ? 0 : 4);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(handled, 0);
}

TEST_F(ControlSocketTest, ASocketThatAnotherUserHoldsIsNotAsked) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as somebody else";
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0777), 0);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setuid(65534) != 0) ::_exit(2);
    const UniqueFd listening(::socket(AF_UNIX, SOCK_STREAM, 0));
    const LocalAddress address(path_);
    if (::bind(listening.get(), address.get(), address.size()) != 0) ::_exit(3);
    ::listen(listening.get(), 1);
    ::close(ends[1]);
    const UniqueFd connection(::accept(listening.get(), nullptr, nullptr));
    char request[64];
    ::_exit(::recv(connection.get(), request, sizeof request, 0) > 0 ? 4 : 0);
  }
  ::close(ends[1]);
  char nothing;
  ASSERT_EQ(::read(ends[0], &nothing, 1), 0);
  ::close(ends[0]);
  EXPECT_EQ(errorOfAsking(), EACCES);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace kestrowan::host
