#include "host/InotifyWatches.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <optional>

#include "mount/LocalFiles.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

namespace {

constexpr int kMajorShift = 20;
constexpr int kHexadecimal = 16;
/// What is read of one descriptor: some 100,000 watches.
constexpr std::size_t kMostText = std::size_t{16} << 20;
constexpr std::uint64_t kChanges = IN_ATTRIB | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE |
                                   IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;

/// The number at the beginning of `text`, which ends there or at a blank.
std::optional<std::uint64_t> numberIn(std::string_view text, int base) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || (end != text.data() + text.size() && *end != ' ')) {
    return std::nullopt;
  }
  return number;
}

/// The value of a line's field, such as " ino:".
std::optional<std::uint64_t> field(std::string_view line, std::string_view name) {
  const auto at = line.find(name);
  if (at == std::string_view::npos) return std::nullopt;
  return numberIn(line.substr(at + name.size()), kHexadecimal);
}

std::optional<std::uint64_t> watchedItem(std::string_view line, std::uint64_t device) {
  if (!line.starts_with("inotify ")) return std::nullopt;
  const auto mask = field(line, " mask:");
  if (field(line, " sdev:") != device || !mask || (*mask & kChanges) == 0) return std::nullopt;
  return field(line, " ino:");
}

bool isNumber(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(),
                                      [](char digit) { return digit >= '0' && digit <= '9'; });
}

bool belongsTo(const std::string& path, uid_t user) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && status.st_uid == user;
}

}  // namespace

std::uint64_t kernelDevice(std::string_view number) {
  constexpr int kDecimal = 10;
  const auto colon = number.find(':');
  if (colon == std::string_view::npos) return 0;
  const auto major = numberIn(number.substr(0, colon), kDecimal);
  const auto minor = numberIn(number.substr(colon + 1), kDecimal);
  return major && minor ? (*major << kMajorShift) | *minor : 0;
}

std::vector<std::uint64_t> watchedItems(std::string_view fdinfo, std::uint64_t device) {
  std::vector<std::uint64_t> items;
  while (!fdinfo.empty()) {
    const auto end = std::min(fdinfo.find('\n'), fdinfo.size());
    if (const auto item = watchedItem(fdinfo.substr(0, end), device)) items.push_back(*item);
    fdinfo.remove_prefix(std::min(end + 1, fdinfo.size()));
  }
  return items;
}

std::vector<std::uint64_t> watchedItems(uid_t user, std::uint64_t device,
                                        const std::string& processes) {
  std::vector<std::uint64_t> items;
  for (const auto& process : namesIn(processes)) {
    const auto path = processes + "/" + process;
    if (!isNumber(process) || !belongsTo(path, user)) continue;
    for (const auto& number : namesIn(path + "/fd")) {
      if (linkTarget(path + "/fd/" + number) != "anon_inode:inotify") continue;
      const UniqueFd file(::open((path + "/fdinfo/" + number).c_str(), O_RDONLY | O_CLOEXEC));
      if (!file) continue;
      const auto found = watchedItems(readAll(file.get(), kMostText), device);
      items.insert(items.end(), found.begin(), found.end());
    }
  }
  std::sort(items.begin(), items.end());
  items.erase(std::unique(items.begin(), items.end()), items.end());
  return items;
}

}  // namespace kestrowan::host
