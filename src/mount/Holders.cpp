#include "mount/Holders.h"

#include <charconv>
#include <fstream>
#include <optional>
#include <string_view>

#include "mount/LocalFiles.h"

namespace kestrowan::mount {

namespace {

/// The file that a line of /proc/NUMBER/maps names, from its first "/" on.
std::string_view mappedPath(std::string_view line) {
  const auto slash = line.find('/');
  return slash == std::string_view::npos ? std::string_view() : line.substr(slash);
}

std::optional<std::string> usedPath(const std::string& process, const std::string& folder) {
  for (const char* link : {"cwd", "root", "exe"}) {
    auto target = linkTarget(process + link);
    if (target && isWithin(*target, folder)) return target;
  }
  for (const auto& number : namesIn(process + "fd")) {
    auto target = linkTarget(process + "fd/" + number);
    if (target && isWithin(*target, folder)) return target;
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
