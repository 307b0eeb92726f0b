#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "platform/base/Task.h"
#include "replica/Records.h"
#include "replica/calls/OpenContents.h"

namespace kestrowan::replica {

namespace calls {
class Files;
}

/// One application's handle on one file. Made by the replica, and closed when its last holder lets
/// go of it, which starts the sending of what was written. The contents are here, or on their
/// way, for as long as it lives, also when the item has been removed or replaced. Usable from every
/// thread; the replica must outlive it.
class OpenFile {
 public:
  OpenFile(calls::Files& files, Rid rid, std::shared_ptr<calls::OpenContents> contents,
           bool isWritable);
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile();

  Rid rid() const { return rid_; }
  bool isWritable() const { return isWritable_; }

  /// Whether the contents are still on their way. They never are again.
  bool isArriving() const;
  /// Waits until `size` bytes from `offset` on can be read, or what of them lies before the end of
  /// the file. Throws EIO when they will not come.
  Task<void> arrival(std::int64_t offset, std::size_t size) const;
  /// How many reads wait for contents on their way.
  std::size_t waitingReads() const;

  /// Runs `use` with a descriptor of the contents, which is good only meanwhile, and with how many
  /// of the `size` bytes from `offset` on to read there; at once. False when they are not all here
  /// yet: `use` has then not been run. Throws EIO when they will not come.
  template <typename Use>
  bool readArrived(std::int64_t offset, std::size_t size, Use&& use) const {
    std::shared_lock lock(contents_->mutex);
    if (!contents_->stream) {
      use(contents_->file.get(), size);
      return true;
    }
    const auto part = contents_->stream->part(offset, size);
    if (part) use(part->file->get(), part->size);
    return part.has_value();
  }

  /// Runs `use` with the descriptor of the contents, which is good only meanwhile; -1 for contents
  /// on their way.
  template <typename Use>
  auto read(Use&& use) const {
    std::shared_lock lock(contents_->mutex);
    return use(contents_->file.get());
  }

  /// The same for a `use` that changes the contents. Notes first, on disk, that they are changed.
  /// Throws `NSError` when that fails; `use` has then not been run.
  template <typename Use>
  auto write(Use&& use) const {
    const Change change(*this);
    return use(contents_->file.get());
  }

  const std::shared_ptr<calls::OpenContents>& contents() const { return contents_; }

 private:
  /// Holds the contents still for one change, and takes note of it afterwards.
  class Change {
   public:
    explicit Change(const OpenFile& file);
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;
    ~Change();

   private:
    const OpenFile& file_;
    std::shared_lock<std::shared_mutex> lock_;
  };

  calls::Files& files_;
  const Rid rid_;
  const std::shared_ptr<calls::OpenContents> contents_;
  const bool isWritable_;
};

}  // namespace kestrowan::replica
