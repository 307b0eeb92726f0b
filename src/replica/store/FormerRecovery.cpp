#include "replica/store/FormerRecovery.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <optional>

#include "replica/store/StoreFiles.h"

namespace kestrowan::replica {

namespace {

constexpr const char* kFolder = "/recovery";
// A blank follows, and the name.
constexpr const char* kDateFormat = "%Y-%m-%dT%H-%M-%SZ";
constexpr std::size_t kDateLength = 20;
constexpr const char* kUnnamed = "unnamed";
constexpr std::int64_t kSecond = 1'000'000'000;

/// The time in a file's name; nothing for one that was named otherwise.
std::optional<std::int64_t> dateFromName(const std::string& name) {
  if (name.size() <= kDateLength || name[kDateLength] != ' ') return std::nullopt;
  struct tm parts {};
  const char* end = ::strptime(name.c_str(), kDateFormat, &parts);
  if (end != name.c_str() + kDateLength) return std::nullopt;
  return ::timegm(&parts);
}

FormerFile formerFile(const std::string& path, const std::string& name, const struct stat& status) {
  FormerFile file;
  file.path = path;
  const auto date = dateFromName(name);
  file.name = date ? name.substr(kDateLength + 1) : name;
  if (file.name == kUnnamed) file.name.clear();
  file.at = date.value_or(status.st_mtim.tv_sec);
  file.size = status.st_size;
  file.modified = status.st_mtim.tv_sec * kSecond + status.st_mtim.tv_nsec;
  return file;
}

std::vector<std::string> namesOrNone(const std::string& directory) {
  struct stat status;
  if (::lstat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return {};
  try {
    return namesIn(directory);
  } catch (const NSError&) {
    return {};
  }
}

}  // namespace

std::vector<FormerFile> formerRecovery(const std::string& directory) {
  std::vector<FormerFile> files;
  const auto folder = directory + kFolder;
  for (const auto& name : namesOrNone(folder)) {
    const auto path = folder + "/" + name;
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) continue;
    if (S_ISREG(status.st_mode)) files.push_back(formerFile(path, name, status));
    if (!S_ISDIR(status.st_mode)) continue;
    // The contents of a lost database, which bear numbers for names.
    const auto at = dateFromName(name).value_or(status.st_mtim.tv_sec);
    for (const auto& inside : namesOrNone(path)) {
      const auto insidePath = path + "/" + inside;
      if (::lstat(insidePath.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
      auto file = formerFile(insidePath, inside, status);
      file.name.clear();
      file.isOfLostDatabase = true;
      file.at = at;
      files.push_back(std::move(file));
    }
  }
  return files;
}

void removeFormerRecovery(const std::string& directory) {
  const auto folder = directory + kFolder;
  for (const auto& name : namesOrNone(folder)) ::rmdir((folder + "/" + name).c_str());
  ::rmdir(folder.c_str());
}

}  // namespace kestrowan::replica
