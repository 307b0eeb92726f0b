#include <algorithm>
#include <deque>

#include "host/Registry.h"
#include "mount/LocalFiles.h"

namespace kestrowan::host {

namespace {

/// As many as the system follows in one path.
constexpr int kMostLinks = 40;

void split(std::string_view path, std::deque<std::string>& front) {
  std::deque<std::string> parts;
  while (!path.empty()) {
    const auto end = path.find('/');
    const auto part = path.substr(0, end);
    if (!part.empty() && part != ".") parts.emplace_back(part);
    path.remove_prefix(end == std::string_view::npos ? path.size() : end + 1);
  }
  front.insert(front.begin(), parts.begin(), parts.end());
}

const HostEntry* hostAt(const std::vector<HostEntry>& hosts, const std::string& path) {
  const auto found = std::find_if(hosts.begin(), hosts.end(), [&](const HostEntry& host) {
    return host.running && host.mountPoint == path;
  });
  return found == hosts.end() ? nullptr : &*found;
}

void removeLast(std::string& path) {
  if (!path.empty()) path.resize(path.rfind('/'));
}

}  // namespace

std::optional<PlaceInMount> placeInMount(const std::vector<HostEntry>& hosts, std::string_view path,
                                         const std::string& directory) {
  std::deque<std::string> left;
  split(path, left);
  if (!path.starts_with('/')) split(directory, left);

  std::string reached;  // without a slash at its end
  std::string inside;   // below the mount point, once there is one
  const HostEntry* host = nullptr;
  for (int links = 0; !left.empty();) {
    const std::string part = std::move(left.front());
    left.pop_front();
    auto& here = host != nullptr ? inside : reached;
    if (part == "..") {
      if (host != nullptr && inside.empty()) {
        host = nullptr;
        removeLast(reached);
      } else {
        removeLast(here);
      }
      continue;
    }
    here.append("/").append(part);
    if (host != nullptr) continue;
    host = hostAt(hosts, reached);
    if (host != nullptr) continue;
    // Not within a mount, so the file system may be asked.
    if (const auto target = linkTarget(reached); target && ++links <= kMostLinks) {
      split(*target, left);
      target->starts_with('/') ? reached.clear() : removeLast(reached);
    }
  }
  if (host == nullptr) return std::nullopt;
  return PlaceInMount{*host, inside.empty() ? "/" : inside};
}

}  // namespace kestrowan::host
