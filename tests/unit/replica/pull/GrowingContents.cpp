#include "GrowingContents.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

namespace kestrowan::test {

GrowingContents::GrowingContents() : file_(::memfd_create("contents", MFD_CLOEXEC)) {
  if (!file_) throw std::system_error(errno, std::generic_category(), "memfd_create");
}

void GrowingContents::grow(std::string_view bytes) {
  const auto written = ::pwrite(file_.get(), bytes.data(), bytes.size(), bytes_);
  if (written < 0) throw std::system_error(errno, std::generic_category(), "pwrite");
  grow(static_cast<std::int64_t>(written));
}

void GrowingContents::grow(std::int64_t bytes) {
  bytes_ += bytes;
  std::vector<std::function<void()>> reached;
  const auto behind = awaited_.upper_bound(bytes_);
  for (auto each = awaited_.begin(); each != behind; ++each) {
    reached.push_back(std::move(each->second));
  }
  awaited_.erase(awaited_.begin(), behind);
  for (const auto& function : reached) function();
}

UniqueFd GrowingContents::open() const {
  return UniqueFd(isOpenable_ ? ::fcntl(file_.get(), F_DUPFD_CLOEXEC, 0) : -1);
}

void GrowingContents::whenReached(std::int64_t offset, std::function<void()> function) {
  if (bytes_ >= offset) return function();
  awaited_.emplace(offset, std::move(function));
}

}  // namespace kestrowan::test
