#include "mount/CallingProgram.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>

#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

namespace {

constexpr std::uint64_t bit(int signal) {
  return std::uint64_t{1} << (signal - 1);
}

/// Signals that, left to their default, do not end a process.
constexpr std::uint64_t kHarmless = bit(SIGCHLD) | bit(SIGCONT) | bit(SIGURG) | bit(SIGWINCH) |
                                    bit(SIGSTOP) | bit(SIGTSTP) | bit(SIGTTIN) | bit(SIGTTOU);

/// The set of signals in the line that begins with `field`; empty when there is no such line.
std::uint64_t signals(std::string_view status, std::string_view field) {
  const auto position = status.find(field);
  if (position == std::string_view::npos) return 0;
  auto text = status.substr(position + field.size());
  text.remove_prefix(std::min(text.size(), text.find_first_not_of(" \t")));
  std::uint64_t set = 0;
  std::from_chars(text.data(), text.data() + text.size(), set, 16);
  return set;
}

}  // namespace

bool isDying(std::string_view status) noexcept {
  const auto waiting = signals(status, "\nSigPnd:") | signals(status, "\nShdPnd:");
  const auto kept = signals(status, "\nSigBlk:") | signals(status, "\nSigIgn:") |
                    signals(status, "\nSigCgt:") | kHarmless;
  return (waiting & ~kept) != 0;
}

bool isDying(pid_t thread) noexcept {
  std::array<char, 32> path = {};
  std::snprintf(path.data(), path.size(), "/proc/%d/status", static_cast<int>(thread));
  const UniqueFd file(::open(path.data(), O_RDONLY | O_CLOEXEC));
  std::array<char, 8192> text = {};
  const auto length = file ? ::read(file.get(), text.data(), text.size()) : -1;
  if (length <= 0) return true;
  return isDying(std::string_view(text.data(), static_cast<std::size_t>(length)));
}

}  // namespace kestrowan::mount
