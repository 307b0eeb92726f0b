#include "replica/store/Contents.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "replica/store/StoreFiles.h"

namespace kestrowan::replica::store {

using model::Content;

namespace {

ContentNumber plain(Content number) {
  return static_cast<ContentNumber>(number);
}

}  // namespace

Contents::Made::Made(ContentFiles& files, Content number, UniqueFd file)
    : files_(files), number_(number), file_(std::move(file)) {}

Contents::Made::Made(Made&& other) noexcept
    : files_(other.files_),
      number_(other.number_),
      file_(std::move(other.file_)),
      isKept_(std::exchange(other.isKept_, true)) {}

Contents::Made::~Made() {
  if (!isKept_) files_.removeIfPossible(plain(number_));
}

UniqueFd Contents::Made::keep() {
  isKept_ = true;
  return std::move(file_);
}

Contents::Contents(ContentFiles& files, Content last)
    : files_(files), last_(static_cast<std::uint64_t>(last)) {}

Content Contents::next() {
  return Content{++last_};
}

Contents::Made Contents::create() {
  const Content number = next();
  return {files_, number, files_.create(plain(number))};
}

Contents::Made Contents::clone(int source) {
  const Content number = next();
  return {files_, number, files_.clone(source, plain(number))};
}

std::optional<Contents::Made> Contents::cloneCheaply(int source, std::int64_t most) {
  const Content number = next();
  if (!files_.cloneCheaply(source, plain(number), most)) return std::nullopt;
  return Made(files_, number, UniqueFd());
}

Contents::Made Contents::adopt(const std::string& path, Content number) {
  files_.adopt(plain(number), path);
  return {files_, number, UniqueFd()};
}

UniqueFd Contents::open(Content number) const {
  return files_.open(plain(number));
}

std::string Contents::path(Content number) const {
  return files_.path(plain(number));
}

void Contents::setModified(Content number, model::FileTime modified) const {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(modified);
  const timespec times[2] = {
      {0, UTIME_OMIT},
      {static_cast<time_t>(seconds.time_since_epoch().count()), (modified - seconds).count()}};
  const auto file = path(number);
  if (::utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
    throw fileError(errno, file);
  }
}

std::int64_t Contents::sizeOf(Content number) const {
  struct stat status;
  const auto file = path(number);
  if (::stat(file.c_str(), &status) != 0) throw fileError(errno, file);
  return status.st_size;
}

}  // namespace kestrowan::replica::store
