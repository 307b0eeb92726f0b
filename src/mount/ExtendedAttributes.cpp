#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "mount/Reply.h"
#include "mount/Requests.h"
#include "mount/StatusAttributes.h"

namespace kestrowan::mount {

namespace {

constexpr std::string_view kUserPrefix = "user.";

replica::SetMode setMode(int flags) {
  using enum replica::SetMode;
  if ((flags & XATTR_CREATE) != 0) return create;
  return (flags & XATTR_REPLACE) != 0 ? replace : either;
}

/// Throws EPERM for the attributes that only this mount writes, ENOTSUP for those that no item has;
/// of `NSPOSIXErrorDomain`.
void checkWritable(std::string_view name) {
  if (isStatusAttribute(name)) throw posixError(EPERM);
  if (!name.starts_with(kUserPrefix)) throw posixError(ENOTSUP);
}

std::string value(replica::Replica& replica, replica::Rid item, std::string_view name) {
  if (isStatusAttribute(name)) {
    auto status = statusAttribute(replica.commands().itemStatus(item), name);
    if (!status) throw posixError(ENODATA);
    return *std::move(status);
  }
  if (!name.starts_with(kUserPrefix)) throw posixError(ENOTSUP);
  return replica.files().userAttribute(item, name);
}

/// Answers as `getxattr` does: with the length when no room is given for the value itself.
void replyValue(fuse_req_t request, std::string_view value, std::size_t room) {
  if (room == 0) {
    fuse_reply_xattr(request, value.size());
  } else if (room < value.size()) {
    fuse_reply_err(request, ERANGE);
  } else {
    fuse_reply_buf(request, value.data(), value.size());
  }
}

}  // namespace

void setExtended(fuse_req_t request, fuse_ino_t item, const char* name, const char* value,
                 size_t size, int flags) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    checkWritable(name);
    Session::of(request).replica().files().setUserAttribute(
        item, name, std::string_view(value, size), setMode(flags));
    fuse_reply_err(request, 0);
  });
}

void getExtended(fuse_req_t request, fuse_ino_t item, const char* name, size_t size) noexcept {
  // Asked for of every file that is listed or written, so this answer must cost nothing. Who hears
  // that there are no labels at all does not ask for the next file's.
  if (std::string_view(name).starts_with("security.")) {
    fuse_reply_err(request, std::string_view(name) == "security.selinux" ? ENOTSUP : ENODATA);
    return;
  }
  serveAtOnce(request, Addressing::byNumber, [&] {
    replyValue(request, value(Session::of(request).replica(), item, name), size);
  });
}

void listExtended(fuse_req_t request, fuse_ino_t item, size_t size) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    std::string names;
    for (const auto& name : Session::of(request).replica().files().userAttributes(item)) {
      names.append(name).push_back('\0');
    }
    replyValue(request, names, size);
  });
}

void removeExtended(fuse_req_t request, fuse_ino_t item, const char* name) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    checkWritable(name);
    Session::of(request).replica().files().removeUserAttribute(item, name);
    fuse_reply_err(request, 0);
  });
}

}  // namespace kestrowan::mount
