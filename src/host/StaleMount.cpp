#include "host/StaleMount.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "host/CommandAdvice.h"
#include "mount/DescribedError.h"
#include "mount/Fusermount.h"
#include "mount/MountPoint.h"
#include "mount/MountTable.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

/// Whether a mount of the kind is where the host had its own.
bool isLeftMounted(const HostEntry& host) {
  if (host.running) return false;
  const auto mount = mount::mountAt(host.mountPoint);
  return mount && mount->type == mount::kMountType;
}

/// Whether `later` has been mounted at the same place since.
bool isSucceeded(const HostEntry& host, const HostEntry& later) {
  return later.mountPoint == host.mountPoint &&
         (later.running || later.registered > host.registered);
}

}  // namespace

std::vector<HostEntry> hostsThatLeft() {
  const auto known = knownHosts();
  std::vector<HostEntry> left;
  for (const auto& host : known) {
    const bool isLast = std::none_of(known.begin(), known.end(), [&](const HostEntry& later) {
      return isSucceeded(host, later);
    });
    if (isLast && isLeftMounted(host)) left.push_back(host);
  }
  return left;
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
  return escapedForDisplay(left.mountPoint) +
         ": its host died and left the mount behind; this cleans it up, and loses nothing: " +
         mountCommand(left);
}

}  // namespace kestrowan::host
