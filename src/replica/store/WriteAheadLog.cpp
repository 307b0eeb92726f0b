#include "replica/store/WriteAheadLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "replica/store/StoreFiles.h"

namespace kestrowan::replica {

namespace {

constexpr off_t kRoom = 4 << 20;

void keepRoomIn(int file) {
  // Without it a full disk can only be emptied from elsewhere.
  static_cast<void>(::fallocate(file, FALLOC_FL_KEEP_SIZE, 0, kRoom));
}

}  // namespace

WriteAheadLog::WriteAheadLog(std::string path)
    : path_(std::move(path)), file_(openRegularFile(path_, O_RDWR)) {
  keepRoom();
}

void WriteAheadLog::keepRoom() noexcept {
  keepRoomIn(file_.get());
}

void WriteAheadLog::keepRoom(const std::string& path) noexcept {
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
  if (file) keepRoomIn(file.get());
}

void WriteAheadLog::sync() {
  if (const int failure = failure_) throw fileError(failure, path_);
  const std::uint64_t commits = commits_;
  if (durable_ >= commits) return;
  while (::fdatasync(file_.get()) != 0) {
    if (errno == EINTR) continue;
    failure_ = errno;
    throw fileError(failure_, path_);
  }
  std::uint64_t before = durable_;
  while (before < commits && !durable_.compare_exchange_weak(before, commits)) {
  }
}

}  // namespace kestrowan::replica
