#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <optional>

#include "replica/NameParts.h"
#include "replica/store/ContentFiles.h"
#include "replica/store/StoreFiles.h"

namespace kestrowan::replica {

namespace {

// A blank follows, and the name. In the order of the text, files are in the order of time.
constexpr const char* kDateFormat = "%Y-%m-%dT%H-%M-%SZ";
constexpr std::size_t kDateLength = 20;
constexpr std::int64_t kLatest = 253402300799;  // the end of the year 9999
constexpr std::string_view kUnnamed = "unnamed";
constexpr std::string_view kOfLostDatabase = "contents of a lost database";

std::string dateText(std::int64_t at) {
  const time_t seconds = std::clamp(at, std::int64_t{0}, kLatest);
  struct tm parts;
  std::array<char, kDateLength + 1> text{};
  ::gmtime_r(&seconds, &parts);
  ::strftime(text.data(), text.size(), kDateFormat, &parts);
  return text.data();
}

/// The time in a recovered file's name; nothing for a file that was named otherwise.
std::optional<std::int64_t> dateFromName(const std::string& name) {
  if (name.size() <= kDateLength || name[kDateLength] != ' ') return std::nullopt;
  struct tm parts {};
  const char* end = ::strptime(name.c_str(), kDateFormat, &parts);
  if (end != name.c_str() + kDateLength) return std::nullopt;
  return ::timegm(&parts);
}

/// `name` as one that a directory takes.
std::string harmlessName(std::string_view name) {
  std::string harmless(name.empty() ? kUnnamed : name);
  for (char& byte : harmless) {
    if (byte == '/' || byte == '\0') byte = '_';
  }
  return harmless;
}

std::int64_t sizeOf(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

/// Moves a file or folder into the recovery area under a name that is free there; gives its path.
std::string moveThere(const std::string& source, const std::string& directory,
                      std::string_view name, std::int64_t at) {
  makePrivateDirectory(directory);
  const auto prefix = dateText(at) + " ";
  const auto harmless = harmlessName(name);
  const auto parts = nameParts(harmless);
  for (unsigned attempt = 1; attempt < std::numeric_limits<unsigned>::max(); ++attempt) {
    const auto suffix = attempt == 1 ? std::string() : " (" + std::to_string(attempt) + ")";
    auto target = directory + "/" + assembledName(prefix, parts, suffix);
    if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
      return target;
    }
    if (errno != EEXIST) throw fileError(errno, source);
  }
  throw fileError(EEXIST, source);
}

}  // namespace

/// What `recover` put there and has its name still. Counts it, and what `recoverAll` put there.
std::vector<ContentFiles::RecoveredFile> ContentFiles::readRecovery() {
  const Usage before = recoveryUsage();
  Usage usage;
  std::vector<RecoveredFile> files;
  // It is a user's to look into, and perhaps to remove.
  makePrivateDirectory(recovery_);
  for (const auto& name : namesIn(recovery_)) {
    const auto at = dateFromName(name);
    auto path = recovery_ + "/" + name;
    struct stat status;
    if (!at || ::lstat(path.c_str(), &status) != 0) continue;
    if (S_ISDIR(status.st_mode)) {
      for (const auto& inside : namesIn(path)) {
        ++usage.files;
        usage.bytes += sizeOf(path + "/" + inside);
      }
    } else if (S_ISREG(status.st_mode)) {
      ++usage.files;
      usage.bytes += status.st_size;
      files.push_back({*at, std::move(path), status.st_size});
    }
  }
  ++recoveryReadings_;
  std::lock_guard lock(usageMutex_);
  // What came meanwhile was not seen.
  recoveryUsage_.files += usage.files - before.files;
  recoveryUsage_.bytes += usage.bytes - before.bytes;
  return files;
}

void ContentFiles::addRecovered(std::int64_t files, std::int64_t bytes) {
  std::lock_guard lock(usageMutex_);
  recoveryUsage_.files += files;
  recoveryUsage_.bytes += bytes;
}

std::string ContentFiles::recover(ContentNumber number, std::string_view name, std::int64_t at) {
  auto kept = moveThere(path(number), recovery_, name, at);
  addRecovered(1, sizeOf(kept));
  return kept;
}

std::string ContentFiles::recoverAll(std::int64_t at) {
  auto kept = moveThere(contents_, recovery_, kOfLostDatabase, at);
  makePrivateDirectory(contents_);
  syncDirectory(recovery_);
  syncDirectory(contents_.substr(0, contents_.rfind('/')));
  readRecovery();
  return kept;
}

void ContentFiles::trimRecovery(std::int64_t bytes, std::int64_t before) {
  auto files = readRecovery();
  std::sort(files.begin(), files.end(), [](const RecoveredFile& a, const RecoveredFile& b) {
    return a.at != b.at ? a.at > b.at : a.path > b.path;
  });
  bool isFull = false;
  for (const auto& file : files) {
    // Once there is no room for one, there is none for the older ones either.
    isFull = isFull || file.size > bytes;
    if (!isFull && file.at >= before) {
      bytes -= file.size;
      continue;
    }
    if (::unlink(file.path.c_str()) != 0 && errno != ENOENT) throw fileError(errno, file.path);
    addRecovered(-1, -file.size);
  }
}

ContentFiles::Usage ContentFiles::recoveryUsage() const {
  std::lock_guard lock(usageMutex_);
  return recoveryUsage_;
}

}  // namespace kestrowan::replica
