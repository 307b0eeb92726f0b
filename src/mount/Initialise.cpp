#include "mount/Requests.h"
#include "mount/Session.h"

namespace kestrowan::mount {

namespace {

/// No write-back cache, because contents change from elsewhere; no access lists; no handles that
/// outlive the daemon. What is read goes to the kernel through pipes; what is written does not come
/// through them, because every small request would then take longer.
constexpr unsigned kWanted = FUSE_CAP_ASYNC_READ | FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_READDIRPLUS |
                             FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_AUTO_INVAL_DATA |
                             FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_HANDLE_KILLPRIV |
                             FUSE_CAP_EXPIRE_ONLY | FUSE_CAP_SPLICE_WRITE;

/// Reads in advance of files whose contents arrive slowly must not hold up those of others: with
/// the kernel's 12, two dozen readers of such files stop everybody.
constexpr unsigned kMostInAdvance = 512;
constexpr unsigned kManyInAdvance = 384;

}  // namespace

void initialise(void* userData, fuse_conn_info* connection) noexcept {
  connection->want = kWanted & connection->capable;
  connection->time_gran = 1;
  connection->max_background = kMostInAdvance;
  connection->congestion_threshold = kManyInAdvance;
  static_cast<Session*>(userData)->setReady();
}

}  // namespace kestrowan::mount
