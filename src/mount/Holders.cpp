#include "mount/Holders.h"

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <climits>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>

namespace kestrowan::mount {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

std::vector<std::string> namesIn(const std::string& path) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(path.c_str()));
  if (!directory) return names;
  while (const auto* entry = ::readdir(directory.get())) names.emplace_back(entry->d_name);
  return names;
}

std::string linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target = {};
  const auto length = ::readlink(path.c_str(), target.data(), target.size());
  return length <= 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

bool isWithin(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

/// The file that a line of /proc/NUMBER/maps names, from its first "/" on.
std::string_view mappedPath(std::string_view line) {
  const auto slash = line.find('/');
  return slash == std::string_view::npos ? std::string_view() : line.substr(slash);
}

std::optional<std::string> usedPath(const std::string& process, const std::string& folder) {
  for (const char* link : {"cwd", "root", "exe"}) {
    auto target = linkTarget(process + link);
    if (isWithin(target, folder)) return target;
  }
  for (const auto& number : namesIn(process + "fd")) {
    auto target = linkTarget(process + "fd/" + number);
    if (isWithin(target, folder)) return target;
  }
  std::ifstream maps(process + "maps");
  for (std::string line; std::getline(maps, line);) {
    const auto path = mappedPath(line);
    if (isWithin(path, folder)) return std::string(path);
  }
  return std::nullopt;
}

}  // namespace

std::vector<Holder> holdersOf(const std::string& path) {
  std::vector<Holder> holders;
  for (const auto& name : namesIn("/proc")) {
    pid_t number = 0;
    const auto* const end = name.data() + name.size();
    if (const auto [rest, error] = std::from_chars(name.data(), end, number);
        error != std::errc() || rest != end) {
      continue;
    }
    const std::string process = "/proc/" + name + "/";
    auto used = usedPath(process, path);
    if (!used) continue;
    std::string program;
    std::ifstream command(process + "comm");
    std::getline(command, program);
    holders.push_back({number, std::move(program), *std::move(used)});
  }
  return holders;
}

std::string describe(const std::vector<Holder>& holders) {
  if (holders.empty()) return "a program";
  std::string text;
  for (const auto& holder : holders) {
    if (!text.empty()) text += ", ";
    text += holder.program + " (" + std::to_string(holder.process) + ", " + holder.path + ")";
  }
  return text;
}

}  // namespace kestrowan::mount
