#include "mount/MarkerRequests.h"

#include <fcntl.h>

#include <cerrno>
#include <string_view>

#include "mount/FileStatus.h"
#include "mount/Requests.h"
#include "mount/Session.h"

namespace kestrowan::mount {

namespace {

bool isMarker(fuse_req_t request, fuse_ino_t item) {
  return Session::of(request).markers().attributes(item).has_value();
}

void getMarkerAttributes(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept {
  const auto& session = Session::of(request);
  const auto attributes = session.markers().attributes(item);
  if (!attributes) return getAttributes(request, item, info);
  const auto status = fileStatus(*attributes, attributes->size, session.appearance());
  fuse_reply_attr(request, &status, session.appearance().cacheTime);
}

void setMarkerAttributes(fuse_req_t request, fuse_ino_t item, struct stat* wanted, int which,
                         fuse_file_info* info) noexcept {
  if (!isMarker(request, item)) return setAttributes(request, item, wanted, which, info);
  fuse_reply_err(request, EPERM);
}

void openMarker(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept {
  if (!isMarker(request, item)) return open(request, item, info);
  if ((info->flags & O_ACCMODE) != O_RDONLY || (info->flags & O_TRUNC) != 0) {
    fuse_reply_err(request, EACCES);
    return;
  }
  info->keep_cache = 1;
  info->noflush = 1;
  fuse_reply_open(request, info);
}

void readMarker(fuse_req_t request, fuse_ino_t item, size_t size, off_t offset,
                fuse_file_info* info) noexcept {
  if (!isMarker(request, item)) return read(request, item, size, offset, info);
  fuse_reply_buf(request, nullptr, 0);
}

void seekInMarker(fuse_req_t request, fuse_ino_t item, off_t offset, int whence,
                  fuse_file_info* info) noexcept {
  if (!isMarker(request, item)) return seek(request, item, offset, whence, info);
  fuse_reply_err(request, ENXIO);
}

void releaseMarker(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept {
  if (!isMarker(request, item)) return release(request, item, info);
  fuse_reply_err(request, 0);
}

void syncMarker(fuse_req_t request, fuse_ino_t item, int dataOnly, fuse_file_info* info) noexcept {
  if (!isMarker(request, item)) return sync(request, item, dataOnly, info);
  fuse_reply_err(request, 0);
}

void setExtendedOfMarker(fuse_req_t request, fuse_ino_t item, const char* name, const char* value,
                         size_t size, int flags) noexcept {
  if (!isMarker(request, item)) return setExtended(request, item, name, value, size, flags);
  fuse_reply_err(request, EPERM);
}

void getExtendedOfMarker(fuse_req_t request, fuse_ino_t item, const char* name,
                         size_t size) noexcept {
  if (!isMarker(request, item)) return getExtended(request, item, name, size);
  const bool mayBeThere = std::string_view(name).starts_with("user.");
  fuse_reply_err(request, mayBeThere ? ENODATA : ENOTSUP);
}

void listExtendedOfMarker(fuse_req_t request, fuse_ino_t item, size_t size) noexcept {
  if (!isMarker(request, item)) return listExtended(request, item, size);
  if (size == 0) {
    fuse_reply_xattr(request, 0);
  } else {
    fuse_reply_buf(request, nullptr, 0);
  }
}

void removeExtendedOfMarker(fuse_req_t request, fuse_ino_t item, const char* name) noexcept {
  if (!isMarker(request, item)) return removeExtended(request, item, name);
  fuse_reply_err(request, EPERM);
}

}  // namespace

void serveMarkers(fuse_lowlevel_ops& table) {
  table.getattr = getMarkerAttributes;
  table.setattr = setMarkerAttributes;
  table.open = openMarker;
  table.read = readMarker;
  table.lseek = seekInMarker;
  table.release = releaseMarker;
  table.fsync = syncMarker;
  table.setxattr = setExtendedOfMarker;
  table.getxattr = getExtendedOfMarker;
  table.listxattr = listExtendedOfMarker;
  table.removexattr = removeExtendedOfMarker;
}

}  // namespace kestrowan::mount
