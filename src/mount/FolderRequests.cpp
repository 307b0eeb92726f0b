#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mount/FileStatus.h"
#include "mount/Reply.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

using Snapshot = std::shared_ptr<const replica::FolderSnapshot>;

enum class Detail { names, attributes };

/// Before the entries of a snapshot come "." and "..".
constexpr off_t kDots = 2;

/// One answer to a reading of a folder, as far as its size allows.
class EntryBuffer {
 public:
  EntryBuffer(fuse_req_t request, std::size_t size, Detail detail)
      : session_(Session::of(request)),
        request_(request),
        size_(size),
        detail_(detail),
        bytes_(std::make_unique_for_overwrite<char[]>(size)) {}

  EntryBuffer(const EntryBuffer&) = delete;
  EntryBuffer& operator=(const EntryBuffer&) = delete;

  /// What the kernel did not take, it does not know.
  ~EntryBuffer() {
    for (const auto item : remembered_) session_.replica().files().forget(item, 1);
  }

  /// Adds the entry; false when there is no room for it. `next` is where reading goes on after it.
  bool add(const std::string& name, const replica::Attributes& attributes, off_t next,
           bool isCurrent, bool isKept = true) {
    auto entry = kernelEntry(attributes, session_.replica().files().allocated(attributes),
                             session_.appearance());
    // A number of 0 tells the kernel the name alone.
    if (!isCurrent) entry.ino = 0;
    if (!isKept) entry.entry_timeout = 0;
    char* const place = bytes_.get() + used_;
    const std::size_t room = size_ - used_;
    const std::size_t length =
        detail_ == Detail::names
            ? fuse_add_direntry(request_, place, room, name.c_str(), &entry.attr, next)
            : fuse_add_direntry_plus(request_, place, room, name.c_str(), &entry, next);
    if (length > room) return false;
    used_ += length;
    if (detail_ == Detail::attributes && isCurrent) remember(attributes.rid);
    return true;
  }

  int send() {
    const int result = fuse_reply_buf(request_, bytes_.get(), used_);
    if (result == 0) remembered_.clear();
    return result;
  }

 private:
  void remember(replica::Rid item) {
    remembered_.push_back(item);
    session_.replica().files().remember(item);
  }

  Session& session_;
  const fuse_req_t request_;
  const std::size_t size_;
  const Detail detail_;
  const std::unique_ptr<char[]> bytes_;
  std::size_t used_ = 0;
  std::vector<replica::Rid> remembered_;
};

/// All that the kernel takes of an entry of which it learns the name.
replica::Attributes nameOnly(replica::Rid item, replica::ItemKind kind) {
  replica::Attributes attributes;
  attributes.rid = item;
  attributes.kind = kind;
  return attributes;
}

/// The item's attributes now; nothing when it is no more.
std::optional<replica::Attributes> currentAttributes(Session& session, replica::Rid item) {
  if (const auto marker = session.markers().attributes(item)) return marker;
  try {
    return session.replica().files().attributes(item);
  } catch (const NSError&) {
    return std::nullopt;
  }
}

/// Fills `buffer` from `offset` on. When names have changed since the snapshot was taken, the
/// kernel learns only names: an entry could stand for another item by now.
void fill(EntryBuffer& buffer, Session& session, replica::Rid folder, const Snapshot& snapshot,
          off_t offset, bool withAttributes) {
  constexpr auto kFolder = replica::ItemKind::folder;
  if (offset == 0 && !buffer.add(".", nameOnly(folder, kFolder), 1, false)) return;
  if (offset <= 1 && !buffer.add("..", nameOnly(snapshot->parent, kFolder), kDots, false)) return;
  const auto& entries = snapshot->entries;
  for (auto index = static_cast<std::size_t>(std::max(offset, kDots) - kDots);
       index < entries.size(); ++index) {
    const auto& entry = entries[index];
    const auto next = static_cast<off_t>(index) + kDots + 1;
    const auto current =
        withAttributes ? currentAttributes(session, entry.rid) : nameOnly(entry.rid, entry.kind);
    if (!current) continue;
    const bool isKept = !session.isUntold(folder, entry.name);
    if (!buffer.add(entry.name, *current, next, withAttributes, isKept)) return;
  }
}

void sendEntries(Reply& reply, FolderHandle& handle, std::size_t size, off_t offset,
                 Detail detail) {
  Snapshot snapshot;
  std::uint32_t changes = 0;
  {
    std::lock_guard lock(handle.mutex);
    snapshot = handle.snapshot;
    changes = handle.changes;
    handle.wasRead = true;
  }
  auto& session = reply.session();
  const bool isCurrent = session.nameChanges().counted(handle.folder) == changes;
  reply.send([&](fuse_req_t request) {
    EntryBuffer buffer(request, size, detail);
    fill(buffer, session, handle.folder, snapshot, offset,
         detail == Detail::attributes && isCurrent);
    return buffer.send();
  });
}

void sendOpened(Reply& reply, fuse_file_info info, std::shared_ptr<FolderHandle> handle) {
  auto& session = reply.session();
  const auto folder = handle->folder;
  info.fh = session.folders().add(std::move(handle));
  if (reply.send([&](fuse_req_t request) { return fuse_reply_open(request, &info); })) return;
  if (session.folders().take(info.fh)) session.replica().files().closeFolder(folder);
}

/// Takes a new snapshot for a program that reads the folder from its beginning once more.
Task<void> refresh(Session& session, std::shared_ptr<FolderHandle> handle) {
  const auto changes = session.nameChanges().counted(handle->folder);
  auto opening = session.replica().files().openFolder(handle->folder);
  Snapshot snapshot = co_await std::move(opening);
  snapshot = session.markers().shown(handle->folder, std::move(snapshot));
  // The handle's own opening still stands.
  session.replica().files().closeFolder(handle->folder);
  std::lock_guard lock(handle->mutex);
  handle->snapshot = std::move(snapshot);
  handle->changes = changes;
}

/// A program may go back to the beginning before it has read anything.
bool isOutdated(Session& session, FolderHandle& handle) {
  const auto changes = session.nameChanges().counted(handle.folder);
  std::lock_guard lock(handle.mutex);
  return handle.wasRead || handle.changes != changes;
}

Task<void> readEntries(std::shared_ptr<Reply> reply, std::shared_ptr<FolderHandle> handle,
                       std::size_t size, off_t offset, Detail detail) {
  auto& session = reply->session();
  if (offset == 0 && isOutdated(session, *handle)) {
    auto refreshed = refresh(session, handle);
    co_await std::move(refreshed);
  }
  sendEntries(*reply, *handle, size, offset, detail);
}

void serveEntries(fuse_req_t request, std::size_t size, off_t offset, const fuse_file_info& info,
                  Detail detail) noexcept {
  serve(request, Addressing::byNumber, OnSignal::ends, [&](std::shared_ptr<Reply> reply) {
    auto handle = reply->session().folders().at(info.fh);
    return readEntries(std::move(reply), std::move(handle), size, offset, detail);
  });
}

Task<void> openAndSend(std::shared_ptr<Reply> reply, replica::Rid folder, fuse_file_info info) {
  auto& session = reply->session();
  auto handle = std::make_shared<FolderHandle>();
  handle->folder = folder;
  handle->changes = session.nameChanges().counted(folder);
  auto opening = session.replica().files().openFolder(folder, reply->caller());
  Snapshot snapshot = co_await std::move(opening);
  handle->snapshot = session.markers().shown(folder, std::move(snapshot));
  sendOpened(*reply, info, std::move(handle));
}

}  // namespace

void openFolder(fuse_req_t request, fuse_ino_t folder, fuse_file_info* info) noexcept {
  serve(request, Addressing::byNumber, OnSignal::ends,
        [&](std::shared_ptr<Reply> reply) { return openAndSend(std::move(reply), folder, *info); });
}

void readFolder(fuse_req_t request, fuse_ino_t, size_t size, off_t offset,
                fuse_file_info* info) noexcept {
  serveEntries(request, size, offset, *info, Detail::names);
}

void readFolderPlus(fuse_req_t request, fuse_ino_t, size_t size, off_t offset,
                    fuse_file_info* info) noexcept {
  serveEntries(request, size, offset, *info, Detail::attributes);
}

void releaseFolder(fuse_req_t request, fuse_ino_t folder, fuse_file_info* info) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    auto& session = Session::of(request);
    if (session.folders().take(info->fh)) session.replica().files().closeFolder(folder);
    fuse_reply_err(request, 0);
  });
}

void syncFolder(fuse_req_t request, fuse_ino_t folder, int, fuse_file_info*) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    Session::of(request).replica().files().fsyncFolder(folder);
    fuse_reply_err(request, 0);
  });
}

}  // namespace kestrowan::mount
