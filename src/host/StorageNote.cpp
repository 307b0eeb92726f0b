#include "host/StorageNote.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "host/PathForm.h"
#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

constexpr const char* kName = "container";
constexpr const char* kNewName = "container.new";
constexpr std::size_t kLargest = 64 * 1024;  // bytes

/// Whether the directory has what every replica makes when it begins.
bool hasState(int directory) {
  for (const char* name : {"replica.db", "contents", "recovery"}) {
    if (::faccessat(directory, name, F_OK, AT_SYMLINK_NOFOLLOW) == 0) return true;
  }
  return false;
}

/// Nothing for a file that is no note of this user's.
std::optional<StorageNote> parsed(const UniqueFd& file) {
  struct stat status;
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_uid != ::geteuid() || status.st_size >= static_cast<off_t>(kLargest)) {
    return std::nullopt;
  }
  const auto form = JSONValue::parse(readAll(file.get(), kLargest));
  if (!form) return std::nullopt;
  StorageNote note{.kind = StorageNote::Kind::known, .container = pathIn(*form, "container")};
  if (!note.container.starts_with('/') || note.container.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  const auto* moved = form->member("moved");
  note.moved = moved != nullptr && moved->boolean() != nullptr && *moved->boolean();
  return note;
}

std::string serialized(const std::string& container, bool moved) {
  JSONValue::Object form;
  addPath(form, "container", container);
  form.emplace_back("moved", moved);
  return JSONValue(std::move(form)).serialized() + "\n";
}

}  // namespace

StorageNote storageNote(const std::string& directory) {
  const UniqueFd folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder && errno == ENOENT) return {};
  if (!folder) throw systemError(errno, escapedForDisplay(directory));
  const UniqueFd file(
      ::openat(folder.get(), kName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file && errno == ENOENT && !hasState(folder.get())) return {};
  const auto note = file ? parsed(file) : std::nullopt;
  return note.value_or(StorageNote{.kind = StorageNote::Kind::unknown, .container = {}});
}

void writeStorageNote(const std::string& directory, const std::string& container, bool moved) {
  const auto shown = escapedForDisplay(directory + "/" + kName);
  const UniqueFd folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) throw systemError(errno, shown);
  const UniqueFd file(::openat(folder.get(), kNewName,
                               O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK,
                               kPrivateFile));
  if (!file) throw systemError(errno, shown);
  const auto text = serialized(container, moved);
  errno = 0;
  if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      ::fsync(file.get()) != 0 || ::renameat(folder.get(), kNewName, folder.get(), kName) != 0 ||
      ::fsync(folder.get()) != 0) {
    // A write that is cut short says nothing itself.
    const int error = errno != 0 ? errno : ENOSPC;
    ::unlinkat(folder.get(), kNewName, 0);
    throw systemError(error, shown);
  }
}

void removeStorageNote(int directory) {
  for (const char* name : {kName, kNewName}) ::unlinkat(directory, name, 0);
}

}  // namespace kestrowan::host
