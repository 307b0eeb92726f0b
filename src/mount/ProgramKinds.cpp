#include "mount/ProgramKinds.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <utility>

#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

using replica::ProgramKind;

namespace {

constexpr std::string_view kBackgroundSlice = "background.slice";

/// What indexes, scans or lists all files without saying that it may wait.
constexpr const char* kBackground[] = {"updatedb*",    "clam*",       "tracker-*",
                                       "localsearch*", "baloo_file*", "recollindex"};
constexpr const char* kThumbnailers[] = {"tumblerd", "*thumbnailer"};

// As the kernel has them, in no header of the C library.
constexpr int kPriorityOfProcess = 1;
constexpr int kPriorityClassShift = 13;
constexpr int kPriorityClassIdle = 3;

std::string procPath(pid_t number, const char* name) {
  return "/proc/" + std::to_string(number) + "/" + name;
}

std::string contentsOf(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 4096> text = {};
  const auto length = file ? ::read(file.get(), text.data(), text.size()) : -1;
  if (length <= 0) return {};
  return std::string(text.data(), static_cast<std::size_t>(length));
}

/// The last part of the executable's path.
std::optional<std::string> executable(pid_t number) {
  std::array<char, 4096> target = {};
  const auto length = ::readlink(procPath(number, "exe").c_str(), target.data(), target.size());
  if (length <= 0) return std::nullopt;
  const std::string_view path(target.data(), static_cast<std::size_t>(length));
  return std::string(path.substr(path.rfind('/') + 1));
}

/// The name of the thread's process, which is that of its first thread.
std::string processName(pid_t thread) {
  const std::string status = contentsOf(procPath(thread, "status"));
  constexpr std::string_view kField = "\nTgid:\t";
  const auto at = status.find(kField);
  if (at == std::string::npos) return {};
  const pid_t process = std::atoi(status.c_str() + at + kField.size());
  std::string name = contentsOf(procPath(process, "comm"));
  if (!name.empty() && name.back() == '\n') name.pop_back();
  return name;
}

bool isIdle(pid_t thread) {
  const int policy = ::sched_getscheduler(thread);
  if (policy >= 0 && (policy & ~SCHED_RESET_ON_FORK) == SCHED_IDLE) return true;
  const auto priority = ::syscall(SYS_ioprio_get, kPriorityOfProcess, thread);
  return priority >= 0 && (priority >> kPriorityClassShift) == kPriorityClassIdle;
}

bool matches(const char* pattern, const std::string& name) {
  return ::fnmatch(pattern, name.c_str(), 0) == 0;
}

/// Whether one part of the path is the slice.
bool isInBackgroundSlice(std::string_view group) {
  while (!group.empty()) {
    const auto end = std::min(group.find('/'), group.size());
    if (group.substr(0, end) == kBackgroundSlice) return true;
    group.remove_prefix(std::min(end + 1, group.size()));
  }
  return false;
}

}  // namespace

ProgramKinds::ProgramKinds(std::vector<std::string> more) : background_(std::move(more)) {}

ProgramKind ProgramKinds::kindOf(const Thread& thread) const {
  const auto fits = [&](const auto& pattern) { return matches(pattern, thread.program); };
  if (std::any_of(std::begin(kThumbnailers), std::end(kThumbnailers), fits)) {
    return ProgramKind::thumbnailer;
  }
  const bool isListed =
      std::any_of(std::begin(kBackground), std::end(kBackground), fits) ||
      std::any_of(background_.begin(), background_.end(),
                  [&](const std::string& pattern) { return fits(pattern.c_str()); });
  const bool isBackground = isListed || thread.isIdle || isInBackgroundSlice(thread.controlGroup);
  return isBackground ? ProgramKind::background : ProgramKind::ordinary;
}

ProgramKinds::Thread ProgramKinds::threadOf(pid_t number) {
  // A thread of another namespace has no number here.
  if (number <= 0) return {};
  Thread thread;
  thread.program = executable(number).value_or(std::string());
  if (thread.program.empty()) thread.program = processName(number);
  thread.controlGroup = controlGroupIn(contentsOf(procPath(number, "cgroup")));
  thread.isIdle = kestrowan::mount::isIdle(number);
  return thread;
}

std::string ProgramKinds::controlGroupIn(std::string_view text) {
  constexpr std::string_view kUnified = "0::";
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    if (line.starts_with(kUnified)) return std::string(line.substr(kUnified.size()));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return {};
}

}  // namespace kestrowan::mount
