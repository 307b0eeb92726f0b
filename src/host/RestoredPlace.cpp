#include "host/RestoredPlace.h"

#include <cerrno>
#include <optional>
#include <string_view>

#include "host/Awaited.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

namespace {

using replica::Rid;

constexpr std::uint16_t kFolderMode = 0755;

/// Absent when nothing is there.
std::optional<Rid> found(replica::Replica& replica, const std::string& path) {
  try {
    return awaited(replica, replica.commands().find(path), kLongestLookUp);
  } catch (const NSError& error) {
    if (error.is(NSPOSIXErrorDomain, ENOENT)) return std::nullopt;
    throw;
  }
}

std::string folderOf(const std::string& path) {
  const auto end = path.rfind('/');
  return end == 0 || end == std::string::npos ? "/" : path.substr(0, end);
}

std::string nameOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

/// The folder at `path`, made with all above it where it is not there.
Rid folderAt(replica::Replica& replica, const std::string& path) {
  if (const auto there = found(replica, path)) return *there;
  const Rid above = folderAt(replica, folderOf(path));
  auto made = replica.files().makeFolder(above, nameOf(path), kFolderMode);
  return awaited(replica, std::move(made), kLongestLookUp).rid;
}

}  // namespace

RestoredPlace placeOfRestored(replica::Replica& replica, replica::ContentNumber id,
                              const std::string& path) {
  const auto entry = replica.commands().historyEntry(id);
  if (!entry) throw describedError(ENOENT, "the history has no entry of that number");
  if (path.empty()) {
    if (!entry->path.starts_with('/')) {
      throw describedError(EINVAL, "where the file was is not known; say where to put it");
    }
    return {folderAt(replica, folderOf(entry->path)), nameOf(entry->path),
            replica::NameTaken::another};
  }
  if (const auto there = found(replica, path)) {
    if (replica.files().attributes(*there).kind != replica::ItemKind::folder) {
      throw describedError(EEXIST, "something is there already");
    }
    const auto name = nameOf(entry->path);
    if (name.empty()) {
      throw describedError(EINVAL, "the file's name is not known; say how to name it");
    }
    return {*there, name, replica::NameTaken::fails};
  }
  const auto folder = found(replica, folderOf(path));
  if (!folder) throw describedError(ENOENT, "the folder that it is to be in is not there");
  return {*folder, nameOf(path), replica::NameTaken::fails};
}

}  // namespace kestrowan::host
