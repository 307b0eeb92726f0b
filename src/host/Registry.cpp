#include "host/Registry.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <tuple>
#include <utility>

#include "host/Directories.h"
#include "host/PathForm.h"
#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "mount/PathTrust.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

namespace {

constexpr std::string_view kSuffix = ".json";
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::size_t kLargestEntry = 64 * 1024;  // bytes

std::string registryDirectory() {
  return stateHome() + "/.hosts";
}

std::string serialized(const HostEntry& entry) {
  JSONValue::Object form;
  form.emplace_back("domain", entry.domain);
  addPath(form, "mountPoint", entry.mountPoint);
  addPath(form, "stateDirectory", entry.stateDirectory);
  addPath(form, "container", entry.container);
  JSONValue::Array options;
  for (const auto& option : entry.options) options.emplace_back(option);
  form.emplace_back("options", std::move(options));
  addPath(form, "socket", entry.socket);
  form.emplace_back("process", static_cast<std::int64_t>(entry.process));
  return JSONValue(std::move(form)).serialized();
}

std::optional<HostEntry> readEntry(const std::string& path) {
  const UniqueFd file(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return std::nullopt;
  const auto form = JSONValue::parse(readAll(file.get(), kLargestEntry));
  if (!form) return std::nullopt;
  HostEntry entry;
  if (const auto* domain = form->member("domain"); domain != nullptr && domain->string()) {
    entry.domain = *domain->string();
  }
  entry.mountPoint = pathIn(*form, "mountPoint");
  entry.stateDirectory = pathIn(*form, "stateDirectory");
  entry.container = pathIn(*form, "container");
  if (const auto* options = form->member("options"); options != nullptr && options->array()) {
    for (const auto& option : *options->array()) {
      if (option.string() != nullptr) entry.options.push_back(*option.string());
    }
  }
  entry.socket = pathIn(*form, "socket");
  if (const auto* process = form->member("process"); process != nullptr && process->integer()) {
    entry.process = static_cast<pid_t>(*process->integer());
  }
  if (!entry.mountPoint.starts_with('/') || !entry.socket.starts_with('/')) return std::nullopt;
  struct stat status;
  if (::fstat(file.get(), &status) == 0) {
    entry.registered = status.st_mtim.tv_sec * kSecond + status.st_mtim.tv_nsec;
  }
  entry.running = ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  return entry;
}

}  // namespace

Registration::Registration(const HostEntry& entry)
    : file_(registryDirectory() + "/" + shortName(entry.stateDirectory) + std::string(kSuffix)) {
  closeToOthers(openPrivateDirectory(registryDirectory()), registryDirectory());
  // Locked before it bears the name, so that nobody ever sees the entry of a host that runs
  // unlocked.
  const auto temporary = file_ + "." + std::to_string(::getpid());
  const auto contents = serialized(entry);
  errno = 0;
  UniqueFd file(
      ::open(temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
  if (!file || ::flock(file.get(), LOCK_EX | LOCK_NB) != 0 ||
      ::write(file.get(), contents.data(), contents.size()) !=
          static_cast<ssize_t>(contents.size()) ||
      ::rename(temporary.c_str(), file_.c_str()) != 0) {
    // A write that is cut short says nothing itself.
    const int error = errno != 0 ? errno : ENOSPC;
    ::unlink(temporary.c_str());
    throw systemError(error, escapedForDisplay(file_));
  }
  locked_ = std::move(file);
}

Registration::~Registration() {
  ::unlink(file_.c_str());
}

std::vector<HostEntry> knownHosts() {
  std::vector<HostEntry> hosts;
  std::string place;
  try {
    place = registryDirectory();
  } catch (const NSError&) {
    return hosts;
  }
  struct stat status;
  if (::stat(place.c_str(), &status) != 0) return hosts;
  // What another user could have put there would say which folders are the user's mounts.
  if (const auto fault = folderFault(place)) throw describedError(EACCES, *fault);
  for (const auto& name : namesIn(place)) {
    if (!name.ends_with(kSuffix)) continue;
    if (auto entry = readEntry(place + "/" + name)) hosts.push_back(*std::move(entry));
  }
  std::sort(hosts.begin(), hosts.end(), [](const HostEntry& a, const HostEntry& b) {
    return std::tie(a.mountPoint, a.stateDirectory) < std::tie(b.mountPoint, b.stateDirectory);
  });
  return hosts;
}

}  // namespace kestrowan::host
