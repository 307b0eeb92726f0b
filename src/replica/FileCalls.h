#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Task.h"
#include "replica/Caller.h"
#include "replica/OpenFile.h"
#include "replica/Records.h"
#include "replica/model/Bytes.h"
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
    /// Shares the bytes that the tree has.
    model::Bytes name;
    Rid rid = 0;
    ItemKind kind = ItemKind::file;
  };
  /// The folder above; the root's is the root itself.
  Rid parent = kRootRid;
  std::vector<Entry> entries;
};

/// One step down from a folder.
struct FolderStep {
  Rid folder = 0;
  std::string name;
  Rid item = 0;

  friend bool operator==(const FolderStep&, const FolderStep&) = default;
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
  /// The program that opens it; null for one that a user waits for.
  std::shared_ptr<const Caller> caller = nullptr;
};

/// Whether a user attribute may be new, or must be.
enum class SetMode : std::uint8_t { either, create, replace };

/// What programs ask of a replica's tree. Part of the replica. Usable from every thread.
///
/// A task begins on the thread that awaits it, and answers at once from what is here where it can,
/// else when the provider has answered or the time for waiting is over. It is awaited only in what
/// `Replica::start` began. The errors are those of `Replica`; a `Rid` that is not known gives
/// ESTALE.
class FileCalls {
 public:
  explicit FileCalls(Life& life);
  FileCalls(const FileCalls&) = delete;
  FileCalls& operator=(const FileCalls&) = delete;

  /// The item of that name, from the folder's listing.
  Task<Attributes> lookUp(Rid folder, std::string name);
  /// Throws `NSError`.
  Attributes attributes(Rid item) const;
  /// A size changes the contents, which are fetched first unless it is 0.
  Task<Attributes> setAttributes(Rid item, AttributeChange change);
  Task<std::shared_ptr<const FolderSnapshot>> openFolder(
      Rid folder, std::shared_ptr<const Caller> caller = nullptr);
  void closeFolder(Rid folder);
  /// From now on programs watch these items, and no others: the folders among them, and those of
  /// the files, are listed after each `interval`, which is above zero. What is not known is left
  /// out.
  void setWatched(const std::vector<Rid>& items, std::chrono::milliseconds interval);
  /// What the name stands for as far as that is known here: asks for nothing, and is no use of the
  /// folder. Absent for a name that nothing has.
  std::optional<Attributes> known(Rid folder, const std::string& name) const;
  /// The way from the root to a folder that is here; absent for any other item.
  std::optional<std::vector<FolderStep>> way(Rid folder) const;
  /// The kernel knows the item once more, or `count` times less; while it does, an item that was
  /// removed or replaced keeps its attributes.
  void remember(Rid item);
  void forget(Rid item, std::uint64_t count);

  /// EACCES when contents would be fetched for a program that works in the background.
  Task<std::shared_ptr<OpenFile>> openFile(Rid item, OpenMode mode);
  /// `mode` is permission bits. EEXIST when the name is taken.
  Task<CreatedFile> createFile(Rid folder, std::string name, std::uint16_t mode);
  Task<Attributes> makeFolder(Rid folder, std::string name, std::uint16_t mode);
  Task<void> removeFile(Rid folder, std::string name);
  Task<void> removeFolder(Rid folder, std::string name);
  /// Replaces what bears the new name, unless `replace` is false; an open file goes on.
  Task<void> rename(Rid folder, std::string name, Rid newFolder, std::string newName, bool replace);

  /// For each `close` of a descriptor: sends what was written soon, and reports once what the
  /// provider refused of this item since.
  Task<void> flush(std::shared_ptr<OpenFile> file);
  /// What was written and acknowledged so far survives a power failure. Blocks on the disk.
  Task<void> fsync(std::shared_ptr<OpenFile> file);
  /// The same for names.
  void fsyncFolder(Rid folder);

  /// User attributes of an item: at most 64 KiB, names and values together. Each throws `NSError`:
  /// ENODATA for one that is not there, ENOSPC beyond the limit, EEXIST as `setxattr` has it.
  std::string userAttribute(Rid item, std::string_view name) const;
  std::vector<std::string> userAttributes(Rid item) const;
  void setUserAttribute(Rid item, std::string_view name, std::string_view value, SetMode mode);
  void removeUserAttribute(Rid item, std::string_view name);

  /// Bytes that an item's contents take on this disk; of those that are not here, what they would.
  std::int64_t allocated(const Attributes& attributes) const;
  /// Of the disk under the replica.
  ContentFiles::Space space() const;

 private:
  Life& life_;
};

}  // namespace kestrowan::replica
