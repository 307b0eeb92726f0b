#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "async/Loop.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "replica/Observer.h"
#include "replica/OpenFile.h"
#include "replica/Options.h"
#include "replica/Outcome.h"
#include "replica/Records.h"
#include "replica/Status.h"
#include "replica/store/ContentFiles.h"

namespace kestrowan::replica {

class Life;

/// What applications see of an item.
struct Attributes {
  Rid rid = 0;
  ItemKind kind = ItemKind::file;
  /// Permission bits, and those of `chmod` beyond them.
  std::uint16_t mode = 0;
  /// How many names lead to it: 0 once it was removed or replaced. Of a folder also its own "." and
  /// the ".." of each folder that is known in it.
  std::uint32_t links = 1;
  /// Bytes.
  std::int64_t size = 0;
  /// The contents here; 0 when there are none.
  ContentNumber content = 0;
  /// Nanoseconds since 1970-01-01 UTC.
  std::int64_t modified = 0;
  /// The same: the last access, as an application set it; the modification when none did.
  std::int64_t accessed = 0;
  /// The same: when contents, attributes or name changed last. Each change moves it.
  std::int64_t changed = 0;
};

/// What `setAttributes` is to change.
struct AttributeChange {
  std::optional<std::uint16_t> mode;
  std::optional<std::int64_t> size;
  std::optional<std::int64_t> modified;
  std::optional<std::int64_t> accessed;
};

/// One folder as it was when it was opened. Immutable.
struct FolderSnapshot {
  struct Entry {
    std::string name;
    Attributes attributes;
  };
  /// The folder above; the root's is the root itself.
  Rid parent = kRootRid;
  std::vector<Entry> entries;
};

struct CreatedFile {
  Attributes attributes;
  std::shared_ptr<OpenFile> file;
};

struct OpenMode {
  bool read = true;
  bool write = false;
  /// Only with `write`: the contents become empty, and are not fetched.
  bool truncate = false;
};

/// Which entries of the history are meant.
struct HistoryFilter {
  /// At or below that path, from the root; everything when empty.
  std::string path;
  /// That left before then; seconds since 1970-01-01 UTC.
  std::int64_t before = INT64_MAX;
};

/// The latest entries of the history, the latest first; and how many there are in all.
struct HistoryList {
  std::vector<HistoryEntry> entries;
  std::int64_t files = 0;
  std::int64_t bytes = 0;
};

/// What becomes of a file that is to be restored under a name that is taken.
enum class NameTaken : std::uint8_t {
  fails,    // EEXIST
  another,  // it gets one like it that is free
};

/// The replica of one provider's tree: what has been listed, what has been fetched, what is still
/// to be sent, on disk and in memory; and the work that brings both sides together.
///
/// Owned by the host, which keeps the loop and the store's directory for longer. Usable from every
/// thread. Calls with a completion answer at once from what is here where they can, else when the
/// provider has answered or the time for waiting is over; the provider is only ever called on the
/// loop. Errors are `NSError`: of `NSPOSIXErrorDomain` for what the replica itself refuses (ENOENT,
/// EEXIST, ENOTEMPTY, ENOTDIR, EISDIR, EACCES, EPERM, EINVAL, ENAMETOOLONG, ESTALE for an item that
/// is no more, ENOSPC, EIO for a disk that fails), the provider's own otherwise, made definite
/// where it was ambiguous. A change that was answered with success survives the death of the
/// process.
class Replica {
 public:
  /// Reads what `directory` (absolute, exclusively the replica's) holds, or begins anew. Sends
  /// nothing before the first `setProvider`. Throws `NSError` as `TreeJournal` and `ContentFiles`
  /// do.
  Replica(const std::string& directory, async::Loop& loop, Options options);
  Replica(const Replica&) = delete;
  Replica& operator=(const Replica&) = delete;
  /// Only when `stop` was called and every `OpenFile` is gone. What has not ended by then never
  /// does. Not on the loop.
  ~Replica();

  /// Makes `provider` the one that is asked from now on; the one before is invalidated and released
  /// when its calls have ended. What was held or waiting for a server is tried again.
  void setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider);
  /// Lists the root, whatever is known of it; completes with what prevents that.
  void askForRoot(Completion<Done> completion);
  /// May be null. Must outlive the replica, or be replaced.
  void setObserver(Observer* observer);
  /// From now on nothing can be opened to be written, or made: EROFS. What was begun can be ended.
  void refuseNewWork();
  /// No more calls to the provider are begun, and the calls that wait are answered.
  void stop();
  /// Waits, after `stop`, until everything that was under way has ended, for at most `limit`. Not
  /// on the loop.
  void waitUntilEnded(std::chrono::milliseconds limit);

  // The tree. A `Rid` that is not known gives ESTALE.

  /// The item of that name, from the folder's listing.
  void lookUp(Rid folder, std::string_view name, Completion<Attributes> completion);
  /// Throws `NSError`.
  Attributes attributes(Rid item) const;
  /// A size changes the contents, which are fetched first unless it is 0.
  void setAttributes(Rid item, const AttributeChange& change, Completion<Attributes> completion);
  void openFolder(Rid folder, Completion<std::shared_ptr<const FolderSnapshot>> completion);
  void closeFolder(Rid folder);
  /// The kernel knows the item once more, or `count` times less; while it does, an item that was
  /// removed or replaced keeps its attributes.
  void remember(Rid item);
  void forget(Rid item, std::uint64_t count);

  void openFile(Rid item, OpenMode mode, Completion<std::shared_ptr<OpenFile>> completion);
  /// `mode` is permission bits. EEXIST when the name is taken.
  void createFile(Rid folder, std::string_view name, std::uint16_t mode,
                  Completion<CreatedFile> completion);
  void makeFolder(Rid folder, std::string_view name, std::uint16_t mode,
                  Completion<Attributes> completion);
  void removeFile(Rid folder, std::string_view name, Completion<Done> completion);
  void removeFolder(Rid folder, std::string_view name, Completion<Done> completion);
  /// Replaces what bears the new name, unless `replace` is false; an open file goes on.
  void rename(Rid folder, std::string_view name, Rid newFolder, std::string_view newName,
              bool replace, Completion<Done> completion);

  /// For each `close` of a descriptor: sends what was written soon, and reports once what the
  /// provider refused of this item since.
  void flush(const std::shared_ptr<OpenFile>& file, Completion<Done> completion);
  /// What was written and acknowledged so far survives a power failure. Blocks on the disk.
  void fsync(const std::shared_ptr<OpenFile>& file, Completion<Done> completion);
  /// The same for names.
  void fsyncFolder(Rid folder);

  /// User attributes of an item: at most 64 KiB, names and values together. Each throws `NSError`:
  /// ENODATA for one that is not there, ENOSPC beyond the limit, EEXIST as `setxattr` has it.
  std::string userAttribute(Rid item, std::string_view name) const;
  std::vector<std::string> userAttributes(Rid item) const;
  enum class SetMode { either, create, replace };
  void setUserAttribute(Rid item, std::string_view name, std::string_view value, SetMode mode);
  void removeUserAttribute(Rid item, std::string_view name);

  /// Bytes that an item's contents take on this disk; of those that are not here, what they would.
  std::int64_t allocated(const Attributes& attributes) const;
  /// Of the disk under the replica.
  ContentFiles::Space space() const;

  // For commands. Paths begin with "/" and are relative to the root. A path whose folders were
  // never listed gives ENOENT.

  /// Throws `NSError`.
  ItemStatus itemStatus(Rid item) const;
  /// The item at `path`, known here or not yet.
  void find(std::string_view path, Completion<Rid> completion);
  /// How things stand, with at most `limit` of the pending items. Counted beforehand: no item is
  /// visited but those, and no disk is read.
  Status status(std::size_t limit = kMostPending) const;
  /// How many pending items a status names.
  static constexpr std::size_t kMostPending = 10000;
  /// Completes when both sides agree, with EIO when only refused changes are left, or with
  /// ETIMEDOUT after `limit`.
  void waitUntilSynced(std::chrono::milliseconds limit, Completion<Done> completion);
  /// Gives back the space of contents that can be fetched again, of everything below a folder.
  EvictionResult evict(Rid item);
  /// Keeps the contents here, of everything below a folder; `false` ends that.
  void setPinned(Rid item, bool pinned);
  /// Tries at once what failed, of everything below a folder.
  void retry(Rid item);
  /// Gives up local changes of everything at and below the item: contents go to the history,
  /// and the provider's state is shown. Gives how many items that were.
  std::size_t discard(Rid item);

  std::optional<HistoryEntry> historyEntry(ContentNumber entry) const;
  /// What is in the history; at most `most` entries.
  HistoryList history(const HistoryFilter& filter, std::size_t most) const;
  /// Removes entries for good. Gives what that was. Throws `NSError`.
  HistoryUsage clearHistory(const HistoryFilter& filter);
  /// Makes a file of an entry's contents, with their date, as a program would; the entry stays.
  /// Completes with the file's path, or as `createFile` does; ENOENT when there is no such entry.
  /// Blocks on the disk.
  void restore(ContentNumber entry, Rid folder, std::string_view name, NameTaken ifTaken,
               Completion<std::string> completion);

 private:
  friend class OpenFile;
  const std::unique_ptr<Life> life_;
};

}  // namespace kestrowan::replica
