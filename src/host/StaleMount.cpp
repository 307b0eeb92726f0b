#include "host/StaleMount.h"

#include <cerrno>
#include <utility>
#include <vector>

#include "mount/DescribedError.h"
#include "mount/Fusermount.h"
#include "mount/MountPoint.h"
#include "mount/MountTable.h"

namespace kestrowan::host {

bool isLeftMounted(const HostEntry& host) {
  if (host.running) return false;
  const auto mount = mount::mountAt(host.mountPoint);
  return mount && mount->type == mount::kMountType;
}

std::optional<HostEntry> hostThatLeft(const std::string& path, const std::string& directory) {
  auto hosts = knownHosts();
  std::erase_if(hosts, [](const HostEntry& host) { return !isLeftMounted(host); });
  // Its mount is a place like any other's.
  for (auto& host : hosts) host.running = true;
  auto place = placeInMount(hosts, path, directory);
  if (!place || place->path != "/") return std::nullopt;
  place->host.running = false;
  return std::move(place->host);
}

void removeLeftMount(const HostEntry& host) {
  if (mount::fusermountUnmount(host.mountPoint, false).empty()) return;
  const auto complaint = mount::fusermountUnmount(host.mountPoint, true);
  if (!complaint.empty()) throw describedError(EBUSY, complaint);
}

}  // namespace kestrowan::host
