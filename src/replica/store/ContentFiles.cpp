#include "replica/store/ContentFiles.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>
#include <system_error>

#include "platform/base/Threads.h"
#include "replica/store/CopyContents.h"
#include "replica/store/StoreFiles.h"

namespace kestrowan::replica {

namespace {

constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;
/// The unit of `st_blocks`, in bytes.
constexpr std::int64_t kSectorSize = 512;

/// The number that a file of the store is named by; nothing for another name.
std::optional<ContentNumber> numberFromName(const std::string& name) {
  ContentNumber number = 0;
  const char* const end = name.data() + name.size();
  const auto [last, error] = std::from_chars(name.data(), end, number);
  if (error != std::errc() || last != end || number == 0 || name.front() == '0') {
    return std::nullopt;
  }
  return number;
}

void removeTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (error) throw fileError(error.value(), path);
}

/// Copies the file behind `source` to `path`, which must be free.
UniqueFd copyTo(int source, const std::string& path) {
  UniqueFd copy(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFile));
  if (!copy) throw fileError(errno, path);
  if (const int error = copyContents(source, copy.get())) {
    ::unlink(path.c_str());
    throw fileError(error, path);
  }
  return copy;
}

}  // namespace

ContentFiles::ContentFiles(const std::string& directory)
    : contents_(directory + "/contents"), temporary_(directory + "/temporary") {
  bool made = false;
  for (const auto& path : {contents_, temporary_}) {
    made = makePrivateDirectory(path) || made;
  }
  if (made) syncDirectory(directory);
  for (const auto& name : namesIn(temporary_)) removeTree(temporary_ + "/" + name);
}

std::string ContentFiles::path(ContentNumber number) const {
  return contents_ + "/" + std::to_string(number);
}

UniqueFd ContentFiles::create(ContentNumber number) {
  const auto file = path(number);
  UniqueFd made(::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFile));
  if (!made) throw fileError(errno, file);
  ++made_;
  return made;
}

std::optional<std::int64_t> ContentFiles::sizeOf(ContentNumber number) const {
  struct stat status;
  if (number == 0 || ::lstat(path(number).c_str(), &status) != 0) return std::nullopt;
  return status.st_size;
}

std::optional<std::int64_t> ContentFiles::allocated(ContentNumber number) const {
  struct stat status;
  if (number == 0 || ::lstat(path(number).c_str(), &status) != 0) return std::nullopt;
  return status.st_blocks * kSectorSize;
}

std::optional<std::int64_t> ContentFiles::sizeOfData(ContentNumber number) const {
  struct stat status;
  if (number == 0 || ::lstat(path(number).c_str(), &status) != 0) return std::nullopt;
  return std::min<std::int64_t>(status.st_size, status.st_blocks * kSectorSize);
}

UniqueFd ContentFiles::open(ContentNumber number) const {
  return openRegularFile(path(number), O_RDWR);
}

UniqueFd ContentFiles::clone(int source, ContentNumber number) {
  auto copy = copyTo(source, path(number));
  ++made_;
  return copy;
}

bool ContentFiles::cloneCheaply(int source, ContentNumber number, std::int64_t most) {
  struct stat status;
  if (::fstat(source, &status) != 0) throw posixError(errno);
  const auto file = path(number);
  const UniqueFd copy(::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFile));
  if (!copy) throw fileError(errno, file);
  int error = shareContents(source, copy.get());
  // Holes are not copied.
  const bool isSmall = status.st_blocks * kSectorSize <= most;
  if (error != 0 && isSmall) error = copyContents(source, copy.get());
  if (error == 0) {
    ++made_;
    return true;
  }
  ::unlink(file.c_str());
  if (isSmall) throw fileError(error, file);
  return false;
}

void ContentFiles::adopt(ContentNumber number, const std::string& file) {
  const auto source = openRegularFile(file, O_RDONLY);
  const auto target = path(number);
  struct stat status;
  if (::fstat(source.get(), &status) != 0) throw fileError(errno, file);
  // A file with another name besides could be changed under that one, and is copied like one that
  // lies in another file system.
  if (status.st_nlink == 1 && ::fchmod(source.get(), kPrivateFile) == 0 &&
      ::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
    ++made_;
    return;
  }
  copyTo(source.get(), target);
  ++made_;
  if (::unlink(file.c_str()) != 0) {
    const int error = errno;
    ::unlink(target.c_str());
    throw fileError(error, file);
  }
}

void ContentFiles::remove(ContentNumber number) {
  const auto file = path(number);
  if (::unlink(file.c_str()) != 0 && errno != ENOENT) throw fileError(errno, file);
}

void ContentFiles::removeIfPossible(ContentNumber number) noexcept {
  guarded("the removal of contents", [&] { ::unlink(path(number).c_str()); });
}

std::vector<ContentNumber> ContentFiles::numbers() const {
  std::vector<ContentNumber> numbers;
  for (const auto& name : namesIn(contents_)) {
    if (const auto number = numberFromName(name)) numbers.push_back(*number);
  }
  return numbers;
}

void ContentFiles::syncNames() {
  const std::uint64_t made = made_;
  if (durable_ >= made) return;
  syncDirectory(contents_);
  std::uint64_t before = durable_;
  while (before < made && !durable_.compare_exchange_weak(before, made)) {
  }
}

void ContentFiles::syncAll() {
  const UniqueFd directory(::open(contents_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::syncfs(directory.get()) != 0) throw fileError(errno, contents_);
}

void ContentFiles::sweepTemporary(std::int64_t before) {
  for (const auto& name : namesIn(temporary_)) {
    const auto file = temporary_ + "/" + name;
    struct stat status;
    if (::lstat(file.c_str(), &status) != 0) continue;
    // A file may have been given the date of something else.
    const std::int64_t changed = std::max(status.st_mtim.tv_sec, status.st_ctim.tv_sec);
    if (changed < before) removeTree(file);
  }
}

ContentFiles::Space ContentFiles::space() const {
  struct statvfs status;
  if (::statvfs(contents_.c_str(), &status) != 0) throw fileError(errno, contents_);
  const auto unit = static_cast<std::int64_t>(status.f_frsize);
  return {static_cast<std::int64_t>(status.f_blocks) * unit,
          static_cast<std::int64_t>(status.f_bavail) * unit};
}

}  // namespace kestrowan::replica
