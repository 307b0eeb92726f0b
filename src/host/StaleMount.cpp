#include "host/StaleMount.h"

#include <cerrno>

#include "host/HostError.h"
#include "mount/Fusermount.h"
#include "mount/MountPoint.h"
#include "mount/MountTable.h"

namespace kestrowan::host {

bool isLeftMounted(const HostEntry& host) {
  if (host.running) return false;
  const auto mount = mount::mountAt(host.mountPoint);
  return mount && mount->type == mount::kMountType;
}

void removeLeftMount(const HostEntry& host) {
  if (mount::fusermountUnmount(host.mountPoint, false).empty()) return;
  const auto complaint = mount::fusermountUnmount(host.mountPoint, true);
  if (!complaint.empty()) throw hostError(EBUSY, complaint);
}

}  // namespace kestrowan::host
