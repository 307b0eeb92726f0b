#include <algorithm>

#include "mount/Requests.h"
#include "mount/Session.h"

namespace kestrowan::mount {

namespace {

/// No write-back cache, because contents change from elsewhere; no access lists; no handles that
/// outlive the daemon.
constexpr unsigned kWanted = FUSE_CAP_ASYNC_READ | FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_READDIRPLUS |
                             FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_AUTO_INVAL_DATA |
                             FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_HANDLE_KILLPRIV |
                             FUSE_CAP_EXPIRE_ONLY | FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE;

/// Bytes. With its header, one request still fits into the largest pipe that a user may have, so
/// that what is written reaches its file without being copied on the way.
constexpr unsigned kLargestWrite = (1U << 20) - 4096;

}  // namespace

void initialise(void* userData, fuse_conn_info* connection) noexcept {
  connection->want = kWanted & connection->capable;
  connection->time_gran = 1;
  connection->max_write = std::min(connection->max_write, kLargestWrite);
  static_cast<Session*>(userData)->setReady();
}

}  // namespace kestrowan::mount
