#include "replica/OpenFile.h"

#include <utility>

#include "platform/base/Threads.h"
#include "replica/Implementation.h"

namespace kestrowan::replica {

OpenFile::OpenFile(Replica& replica, std::shared_ptr<Item> item, std::shared_ptr<Contents> contents,
                   bool writable)
    : replica_(replica),
      item_(std::move(item)),
      contents_(std::move(contents)),
      writable_(writable) {}

OpenFile::~OpenFile() {
  guarded("the close of a file", [this] { replica_.implementation_->closed(*this); });
}

Rid OpenFile::rid() const {
  return item_->rid;
}

OpenFile::Change::Change(const OpenFile& file) : file_(file) {
  for (;;) {
    lock_ = std::shared_lock(file.contents_->mutex);
    if (file.contents_->noted && !file.contents_->frozen && file.contents_->versioned) return;
    lock_.unlock();
    file.replica_.implementation_->prepareChange(file.item_, *file.contents_);
  }
}

OpenFile::Change::~Change() {
  file_.replica_.implementation_->noteChange(file_.item_, *file_.contents_);
}

}  // namespace kestrowan::replica
