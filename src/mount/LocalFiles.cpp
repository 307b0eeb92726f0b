#include "mount/LocalFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSError.h"

namespace kestrowan {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

/// The next name but "." and ".."; null after the last.
const char* nextName(const Directory& directory) {
  while (const auto* entry = ::readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") return entry->d_name;
  }
  return nullptr;
}

}  // namespace

std::vector<std::string> namesIn(const std::string& path) {
  std::vector<std::string> names;
  const Directory directory(::opendir(path.c_str()));
  if (!directory) return names;
  while (const auto* name = nextName(directory)) names.emplace_back(name);
  return names;
}

bool isEmptyFolder(int folder) {
  UniqueFd copy(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Directory directory(copy ? ::fdopendir(copy.get()) : nullptr);
  if (!directory) throw posixError(errno);
  copy.release();
  return nextName(directory) == nullptr;
}

std::optional<std::string> linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target;
  const auto length = ::readlink(path.c_str(), target.data(), target.size());
  if (length <= 0) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(length));
}

std::string resolvedAsFar(const std::string& path) {
  // As many as the system follows in one path.
  constexpr int kMostLinks = 40;
  std::string reached;
  const auto goUp = [&] { reached.resize(reached.empty() ? 0 : reached.rfind('/')); };
  auto left = path;
  for (int links = 0; !left.empty();) {
    const auto end = std::min(left.find('/'), left.size());
    const auto part = left.substr(0, end);
    left.erase(0, end + 1);
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      goUp();
      continue;
    }
    reached.append("/").append(part);
    const auto target = linkTarget(reached);
    if (!target || ++links > kMostLinks) continue;
    target->starts_with('/') ? reached.clear() : goUp();
    left.insert(0, *target + "/");
  }
  return reached;
}

bool isWithin(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

std::string readAll(int file, std::size_t limit) {
  std::string contents;
  std::array<char, 4096> piece;
  while (contents.size() < limit) {
    const auto count = ::read(file, piece.data(), std::min(piece.size(), limit - contents.size()));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    contents.append(piece.data(), static_cast<std::size_t>(count));
  }
  return contents;
}

}  // namespace kestrowan
