#include "mount/Fusermount.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <vector>

#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

namespace {

constexpr const char* kProgram = "fusermount3";

std::string complaintIn(const UniqueFd& file) {
  constexpr std::size_t kLongest = 4096;
  auto text = readAll(file.get(), kLongest);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

pid_t spawn(const std::string& path, bool lazily, int complaints) {
  std::vector<std::string> words = {kProgram, "-u"};
  if (lazily) words.emplace_back("-z");
  words.insert(words.end(), {"--", path});
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, complaints, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, complaints, STDERR_FILENO);
  // The caller's working directory may lie in a mount, even in this one.
  ::posix_spawn_file_actions_addchdir_np(&actions, "/");
  pid_t process = -1;
  const int error =
      ::posix_spawnp(&process, kProgram, &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw describedError(error, std::string(kProgram) + " cannot be run (" +
                                    std::generic_category().message(error) +
                                    "); install the package fuse3");
  }
  return process;
}

}  // namespace

std::string fusermountUnmount(const std::string& path, bool lazily) {
  std::array<int, 2> ends = {};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw posixError(errno);
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  const auto process = spawn(path, lazily, writing.get());
  writing.reset();
  auto complaint = complaintIn(reading);
  int status = 0;
  while (::waitpid(process, &status, 0) < 0) {
    if (errno != EINTR) throw posixError(errno);
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  if (complaint.empty()) complaint = std::string(kProgram) + " failed";
  return complaint;
}

}  // namespace kestrowan::mount
