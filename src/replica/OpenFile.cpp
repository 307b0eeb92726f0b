#include "replica/OpenFile.h"

#include <utility>

#include "platform/base/Threads.h"
#include "replica/calls/Files.h"

namespace kestrowan::replica {

OpenFile::OpenFile(calls::Files& files, Rid rid, std::shared_ptr<calls::OpenContents> contents,
                   bool isWritable)
    : files_(files), rid_(rid), contents_(std::move(contents)), isWritable_(isWritable) {}

OpenFile::~OpenFile() {
  guarded("the close of a file", [this] { files_.closed(*this); });
}

bool OpenFile::isArriving() const {
  std::shared_lock lock(contents_->mutex);
  return contents_->stream != nullptr;
}

Task<void> OpenFile::arrival(std::int64_t offset, std::size_t size) const {
  pull::Stream::Reader stream;
  {
    std::shared_lock lock(contents_->mutex);
    stream = contents_->stream;
  }
  if (!stream) co_return;
  auto arrived = pull::Stream::arrival(stream, offset + static_cast<std::int64_t>(size));
  co_await std::move(arrived);
}

std::size_t OpenFile::waitingReads() const {
  std::shared_lock lock(contents_->mutex);
  return contents_->stream ? contents_->stream->waiting() : 0;
}

OpenFile::Change::Change(const OpenFile& file) : file_(file) {
  for (;;) {
    lock_ = std::shared_lock(file.contents_->mutex);
    if (file.contents_->mayChange) return;
    lock_.unlock();
    file.files_.changes().prepare(model::ItemNumber{file.rid_}, *file.contents_);
  }
}

OpenFile::Change::~Change() {
  file_.files_.changes().noteWritten(model::ItemNumber{file_.rid_}, *file_.contents_);
}

}  // namespace kestrowan::replica
