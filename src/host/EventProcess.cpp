#include "host/EventProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "host/EventCalls.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

namespace {

constexpr int kFirstOther = 3;

/// As a program begins, in a session of its own: what a terminal sends is not for it.
void setAttributes(posix_spawnattr_t& attributes) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

void setDescriptors(posix_spawn_file_actions_t& actions, int socket) {
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, socket, STDIN_FILENO);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addclosefrom_np(&actions, kFirstOther);
  ::posix_spawn_file_actions_addchdir_np(&actions, "/");
}

}  // namespace

EventProcess::EventProcess(const std::string& program) {
  std::array<int, 2> ends = {};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw posixError(errno);
  }
  socket_.reset(ends[0]);
  const UniqueFd theirs(ends[1]);
  std::string name = "kestrowan";
  std::string command = kEventCallsCommand;
  const std::array<char*, 3> words = {name.data(), command.data(), nullptr};
  const std::array<char*, 1> variables = {nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  setDescriptors(actions, theirs.get());
  setAttributes(attributes);
  const int error = ::posix_spawn(&number_, program.c_str(), &actions, &attributes, words.data(),
                                  variables.data());
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  if (error != 0) throw posixError(error);
}

EventProcess::~EventProcess() {
  kill();
  int status = 0;
  ::waitpid(number_, &status, WNOHANG);
}

bool EventProcess::send(const std::string& packet) {
  const auto sent =
      ::send(socket_.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(packet.size());
}

std::optional<EventProcess::Answer> EventProcess::answer() {
  std::int32_t error = 0;
  const auto length = ::recv(socket_.get(), &error, sizeof error, MSG_DONTWAIT);
  if (length == sizeof error) return Answer{error};
  if (length >= 0 || (errno != EAGAIN && errno != EINTR)) isClosed_ = true;
  return std::nullopt;
}

void EventProcess::kill() {
  ::kill(number_, SIGKILL);
}

bool EventProcess::hasEnded() const {
  siginfo_t state = {};
  const int result =
      ::waitid(P_PID, static_cast<id_t>(number_), &state, WEXITED | WNOHANG | WNOWAIT);
  return result != 0 || state.si_pid == number_;
}

}  // namespace kestrowan::host
