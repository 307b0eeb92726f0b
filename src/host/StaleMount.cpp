#include "host/StaleMount.h"

#include <cerrno>
#include <vector>

#include "mount/DescribedError.h"
#include "mount/Fusermount.h"
#include "mount/MountPoint.h"
#include "mount/MountTable.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

bool isLeftMounted(const HostEntry& host) {
  if (host.running) return false;
  const auto mount = mount::mountAt(host.mountPoint);
  return mount && mount->type == mount::kMountType;
}

std::vector<HostEntry> hostsThatLeft() {
  auto hosts = knownHosts();
  std::erase_if(hosts, [](const HostEntry& host) { return !isLeftMounted(host); });
  return hosts;
}

std::optional<PlaceInMount> placeThatWasLeft(const std::string& path,
                                             const std::string& directory) {
  auto hosts = hostsThatLeft();
  // Its mount is a place like any other's.
  for (auto& host : hosts) host.running = true;
  auto place = placeInMount(hosts, path, directory);
  if (place) place->host.running = false;
  return place;
}

std::optional<HostEntry> hostThatLeft(const std::string& path, const std::string& directory) {
  const auto place = placeThatWasLeft(path, directory);
  if (!place || place->path != "/") return std::nullopt;
  return place->host;
}

void removeLeftMount(const HostEntry& host) {
  if (!mount::fusermountUnmount(host.mountPoint, false).empty()) {
    const auto complaint = mount::fusermountUnmount(host.mountPoint, true);
    if (!complaint.empty()) throw describedError(EBUSY, complaint);
  }
  mount::restoreMountPoint(host.stateDirectory);
}

std::string adviceFor(const HostEntry& left) {
  const auto shown = escapedForDisplay(left.mountPoint);
  return shown +
         ": its host died and left the mount behind; this cleans it up, and loses nothing: "
         "kestrowan mount " +
         (left.domain == "default" ? "" : "--domain " + left.domain + " ") + "'" + shown + "'";
}

}  // namespace kestrowan::host
