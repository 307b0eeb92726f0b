#include "host/DesktopSession.h"

#include <fcntl.h>

#include <algorithm>
#include <cstddef>

#include "mount/LocalFiles.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

namespace {

constexpr std::size_t kMostText = 4096;

/// What follows `key` at the beginning of a line; empty when there is no such line.
std::string_view valueOf(std::string_view note, std::string_view key) {
  while (!note.empty()) {
    const auto end = std::min(note.find('\n'), note.size());
    const auto line = note.substr(0, end);
    if (line.starts_with(key)) return line.substr(key.size());
    note.remove_prefix(std::min(end + 1, note.size()));
  }
  return {};
}

}  // namespace

bool isActiveDesktop(std::string_view note, uid_t user) {
  const auto type = valueOf(note, "TYPE=");
  const bool hasWindows = type == "wayland" || type == "x11" || type == "mir";
  return hasWindows && valueOf(note, "ACTIVE=") == "1" &&
         valueOf(note, "UID=") == std::to_string(user);
}

bool hasActiveDesktop(uid_t user, const std::string& directory) {
  const auto names = namesIn(directory);
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    // Beside the notes there are pipes, by which the manager notices the end of a session.
    const UniqueFd file(
        ::open((directory + "/" + name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return file && !name.ends_with(".ref") && isActiveDesktop(readAll(file.get(), kMostText), user);
  });
}

}  // namespace kestrowan::host
