#include "mount/Fusermount.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "mount/SystemProgram.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

namespace {

constexpr const char* kName = "fusermount3";
/// Under this number the program finds the socket through which it hands the connection over.
constexpr int kSocketNumber = 3;
constexpr const char* kSocketVariable = "_FUSE_COMMFD=3";

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> list;
  for (auto& word : words) list.push_back(word.data());
  list.push_back(nullptr);
  return list;
}

/// Starts the program. `socket`: see above; -1 for none.
pid_t spawn(std::vector<std::string> arguments, int complaints, int socket) {
  const auto program = fusermountProgram();
  arguments.insert(arguments.begin(), kName);
  // Complaints are understood in one language only, and nothing of the user's steers the program.
  std::vector<std::string> variables = {"PATH=/usr/bin:/bin", "LC_ALL=C"};
  if (socket >= 0) variables.emplace_back(kSocketVariable);

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, complaints, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, complaints, STDERR_FILENO);
  if (socket >= 0) ::posix_spawn_file_actions_adddup2(&actions, socket, kSocketNumber);
  // The caller's working directory may lie in a mount, even in this one.
  ::posix_spawn_file_actions_addchdir_np(&actions, "/");
  pid_t process = -1;
  const int error = ::posix_spawn(&process, program.c_str(), &actions, nullptr,
                                  pointers(arguments).data(), pointers(variables).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw describedError(error, program + " cannot be run (" +
                                    std::generic_category().message(error) +
                                    "); install the package fuse3");
  }
  return process;
}

/// Runs the program to its end and gives its complaint, empty when it succeeded. Closes `socket`.
std::string run(std::vector<std::string> arguments, UniqueFd socket) {
  constexpr std::size_t kLongest = 4096;
  std::array<int, 2> ends = {};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw posixError(errno);
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  const auto process = spawn(std::move(arguments), writing.get(), socket.get());
  writing.reset();
  socket.reset();
  auto complaint = readAll(reading.get(), kLongest);
  while (!complaint.empty() && complaint.back() == '\n') complaint.pop_back();
  int status = 0;
  while (::waitpid(process, &status, 0) < 0) {
    if (errno != EINTR) throw posixError(errno);
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  if (complaint.empty()) complaint = std::string(kName) + " failed";
  return complaint;
}

/// The descriptor that was sent through `socket`; none when there is none.
UniqueFd receiveDescriptor(const UniqueFd& socket) {
  char byte = 0;
  iovec piece = {&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control = {};
  msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t count;
  do {
    count = ::recvmsg(socket.get(), &message, MSG_CMSG_CLOEXEC);
  } while (count < 0 && errno == EINTR);
  const auto* header = count > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS ||
      header->cmsg_len != CMSG_LEN(sizeof(int))) {
    return {};
  }
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
  return UniqueFd(descriptor);
}

}  // namespace

std::string fusermountProgram() {
  try {
    return systemProgram({"/usr/bin/fusermount3", "/bin/fusermount3",
                          "/run/wrappers/bin/fusermount3", "/usr/local/bin/fusermount3"});
  } catch (const NSError& error) {
    throw describedError(static_cast<int>(error.code()),
                         error.localizedDescription() + "; install the package fuse3");
  }
}

UniqueFd fusermountMount(const std::string& path, const std::string& options) {
  std::array<int, 2> ends = {};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw systemError(errno, kName);
  }
  const UniqueFd ours(ends[0]);
  const auto complaint = run({"-o", options, "--", path}, UniqueFd(ends[1]));
  if (!complaint.empty()) throw describedError(EIO, complaint);
  auto device = receiveDescriptor(ours);
  if (!device) throw describedError(EIO, std::string(kName) + " gave no connection");
  return device;
}

std::string fusermountUnmount(const std::string& path, bool lazily) {
  std::vector<std::string> arguments = {"-u"};
  if (lazily) arguments.emplace_back("-z");
  arguments.insert(arguments.end(), {"--", path});
  return run(std::move(arguments), UniqueFd());
}

}  // namespace kestrowan::mount
