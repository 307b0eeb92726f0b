#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "async/Loop.h"
#include "replica/FileCalls.h"
#include "replica/FilePlaces.h"
#include "replica/calls/Lookups.h"
#include "replica/calls/OpenContents.h"
#include "replica/model/Edit.h"
#include "replica/pull/Freezer.h"
#include "replica/push/OpenWait.h"
#include "replica/store/Contents.h"

namespace kestrowan::replica::calls {

/// Which items the kernel knows and which files programs have open, with what they see of those
/// that are no more. Usable from every thread.
class OpenItems : public pull::Freezer, public push::OpenWait {
 public:
  /// `openFiles`: how many files may be open at once; 0 for any number.
  OpenItems(const model::Tree& tree, const async::Loop& loop, store::Contents& contents,
            std::size_t openFiles);
  OpenItems(const OpenItems&) = delete;
  OpenItems& operator=(const OpenItems&) = delete;

  /// The kernel knows the item once more, or `count` times less.
  void remember(model::ItemNumber item);
  void forget(model::ItemNumber item, std::uint64_t count);

  /// Throws EMFILE when no more files can be open.
  void requirePlace(model::ItemNumber file) const;
  /// One more handle on a file whose contents are `content`, or those that it is open with. Throws
  /// what opening them throws.
  std::shared_ptr<OpenContents> open(model::ItemNumber file, model::Content content,
                                     bool isWritable);
  /// The same for contents on their way, to be read only. `modified` is what programs see. May be
  /// called with a view of the tree.
  std::shared_ptr<OpenContents> openArriving(model::ItemNumber file, pull::Stream::Reader stream,
                                             std::int64_t modified);
  /// Handles on contents that were on their way have those that are here, if they are now. What
  /// will not come any more is not shared with further handles. Throws what opening them throws.
  void handOver(model::ItemNumber file);
  /// One handle less. Whether it was the last one for writing.
  bool close(model::ItemNumber file, bool isWritable);

  bool isOpen(model::ItemNumber file) const;
  bool isWritten(model::ItemNumber file) const;
  /// Null when the file is not open.
  std::shared_ptr<OpenContents> contentsOf(model::ItemNumber file) const;

  /// Whether contents are being sent or compared.
  bool isFrozen(model::Content content) const;
  pull::Frozen freeze(model::ItemNumber file) override;
  std::chrono::milliseconds openWait(model::ItemNumber file) const override;
  void noteSending(model::ItemNumber file) override;
  /// How long it took to copy what was being sent for a program that went on writing.
  void noteCopy(model::ItemNumber file, std::chrono::milliseconds time);
  /// The file is to be sent soon although a program has it open.
  void setUrgent(model::ItemNumber file);
  /// The same, at once: a call waits until it has arrived.
  void setAwaited(model::ItemNumber file);

  /// The item is no more, or has no name any more. `seen`: what programs saw of it.
  void keepLeft(model::ItemNumber item, const Attributes& seen, model::Content content);
  struct Left {
    Attributes attributes;
    model::Content content = model::Content::none;
  };
  /// What programs see of an item that is no more; absent for one that nothing knows.
  std::optional<Left> left(model::ItemNumber item) const;
  void changeLeft(model::ItemNumber item, const Attributes& seen);

 private:
  /// What is to be known of an item that is open, was open or is no more.
  struct Entry {
    std::uint32_t handles = 0;
    std::uint32_t writers = 0;
    std::weak_ptr<OpenContents> contents;
    std::optional<Left> left;
    bool isUrgent = false;
    bool isAwaited = false;
    /// When it was sent last while it was open.
    std::optional<async::Loop::Moment> sentOpenAt;
    std::chrono::milliseconds copyTime{0};

    bool saysNothing() const;
  };

  Entry* entryOf(model::ItemNumber item);
  void dropIfUnused(model::ItemNumber item);

  const model::Tree& tree_;
  const async::Loop& loop_;
  store::Contents& contents_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  FilePlaces places_;
  Lookups lookups_;
  /// Of items that the kernel knows or a program has open; those that say something.
  std::unordered_map<model::ItemNumber, Entry> entries_;
  std::unordered_map<model::Content, unsigned> frozen_;
};

}  // namespace kestrowan::replica::calls
