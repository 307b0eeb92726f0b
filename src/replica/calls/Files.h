#pragma once

#include <memory>
#include <string>

#include "platform/base/Task.h"
#include "replica/FileCalls.h"
#include "replica/calls/ContentChanges.h"
#include "replica/calls/Rooms.h"

namespace kestrowan::replica::calls {

/// What programs do with one file. The calls are documented in `FileCalls`; those that wait are
/// coroutines, which begin on the caller's thread and continue on the loop. Throws `NSError`.
class Files {
 public:
  explicit Files(const Rooms& rooms);

  Attributes attributes(model::ItemNumber item) const;
  Task<Attributes> setAttributes(model::ItemNumber item, AttributeChange change);
  Task<std::shared_ptr<OpenFile>> open(model::ItemNumber file, OpenMode mode);
  Task<void> flush(std::shared_ptr<OpenFile> file);
  Task<void> fsync(std::shared_ptr<OpenFile> file);
  /// A handle on contents that were just made for the item.
  std::shared_ptr<OpenFile> opened(model::ItemNumber file, model::Content content, bool isWritable);
  void closed(const OpenFile& file);

  std::string userAttribute(model::ItemNumber item, std::string_view name) const;
  std::vector<std::string> userAttributes(model::ItemNumber item) const;
  void setUserAttribute(model::ItemNumber item, std::string_view name, std::string_view value,
                        SetMode mode);
  void removeUserAttribute(model::ItemNumber item, std::string_view name);

  ContentChanges& changes() { return changes_; }

 private:
  void noteChangeDate(model::ItemNumber item, OpenContents& contents) const;
  void requireOpenable(model::ItemNumber file, OpenMode mode) const;
  model::Content openable(model::ItemNumber file) const;
  Task<void> lookAtFolder(model::ItemNumber file);
  std::int64_t sizeOf(model::ItemNumber file) const;
  bool mayStream(model::ItemNumber file, OpenMode mode) const;
  std::shared_ptr<OpenFile> openedArriving(model::ItemNumber file, pull::Stream::Reader stream);
  Task<pull::Stream::Reader> fetch(model::ItemNumber file, bool isWhole);
  void requireHope(model::ItemNumber file) const;
  Task<void> explain(model::ItemNumber file, NSError error);
  void cut(model::ItemNumber file, OpenFile& open, std::int64_t size);
  void noteSize(model::ItemNumber file, std::int64_t size);
  void setKept(model::ItemNumber item, const AttributeChange& change);
  bool setKeptOfLeft(model::ItemNumber item, const AttributeChange& change);

  const Rooms& rooms_;
  ContentChanges changes_;
};

}  // namespace kestrowan::replica::calls
