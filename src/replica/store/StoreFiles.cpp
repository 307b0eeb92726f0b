#include "replica/store/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace kestrowan::replica {

namespace {

constexpr mode_t kPermissionBits = 07777;

}  // namespace

NSError fileError(int number, std::string_view path) {
  return NSError(NSPOSIXErrorDomain, number,
                 {{std::string(NSLocalizedDescriptionKey),
                   std::string(path) + ": " + std::generic_category().message(number)},
                  {std::string(NSFilePathErrorKey), std::string(path)}});
}

bool makePrivateDirectory(const std::string& path) {
  const bool made = ::mkdir(path.c_str(), S_IRWXU) == 0;
  if (!made && errno != EEXIST) throw fileError(errno, path);
  const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!directory || ::fstat(directory.get(), &status) != 0) throw fileError(errno, path);
  if (status.st_uid != ::geteuid()) throw fileError(EPERM, path);
  if ((status.st_mode & kPermissionBits) != S_IRWXU && ::fchmod(directory.get(), S_IRWXU) != 0) {
    throw fileError(errno, path);
  }
  return made;
}

void syncDirectory(const std::string& path) {
  const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::fsync(directory.get()) != 0) throw fileError(errno, path);
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
       at.increment(error)) {
    names.push_back(at->path().filename().string());
  }
  if (error) throw fileError(error.value(), directory);
  return names;
}

UniqueFd openRegularFile(const std::string& path, int flags) {
  UniqueFd file(::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) throw fileError(errno, path);
  if (!S_ISREG(status.st_mode)) throw fileError(EINVAL, path);
  return file;
}

}  // namespace kestrowan::replica
