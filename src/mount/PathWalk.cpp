#include "mount/PathWalk.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <utility>

namespace kestrowan {

namespace {

constexpr int kMostLinks = 40;
constexpr int kLook = O_PATH | O_CLOEXEC;
constexpr mode_t kPrivateFolder = S_IRWXU;

/// The path of what `folder` has under `name`.
std::string joined(const std::string& folder, const std::string& name) {
  if (name == ".." && folder.starts_with('/')) {
    const auto slash = folder.rfind('/');
    return slash == 0 ? "/" : folder.substr(0, slash);
  }
  if (folder == "." && name != "..") return name;
  return (folder == "/" ? "" : folder) + "/" + name;
}

/// Whether the link is one of the system's to what a process has open, which no text names.
bool isLinkToOpenFile(const UniqueFd& link) {
  struct statfs system = {};
  return ::fstatfs(link.get(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

}  // namespace

PathWalk::PathWalk(const std::string& path, Judge judge, LastLink lastLink, Missing missing)
    : judge_(std::move(judge)), lastLink_(lastLink), missing_(missing) {
  if (path.empty()) {
    fail(ENOENT, path);
    return;
  }
  addParts(path);
  ownParts_ = parts_.size();
  if (!begin(path.front() == '/' ? "/" : ".")) return;
  while (!parts_.empty()) {
    if (!goOn()) return;
  }
  if (end_) return;
  // The last part was the folder itself.
  noteFolder(".");
  reach(std::move(at_));
}

/// What the way has reached is the folder of the last part.
void PathWalk::noteFolder(const std::string& name) {
  folder_.reset(::fcntl(at_.descriptor.get(), F_DUPFD_CLOEXEC, 0));
  folderStatus_ = at_.status;
  folderPath_ = at_.path;
  name_ = name;
}

/// Puts the parts of `path` before those that are left. A slash at its end asks for a folder.
void PathWalk::addParts(const std::string& path) {
  std::deque<std::string> parts;
  for (std::size_t start = 0; start < path.size();) {
    const auto end = std::min(path.find('/', start), path.size());
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  if (path.ends_with('/') && !parts.empty()) parts.emplace_back(".");
  parts_.insert(parts_.begin(), parts.begin(), parts.end());
}

bool PathWalk::begin(const std::string& path) {
  Place place;
  place.path = path;
  place.descriptor.reset(::open(path.c_str(), kLook | O_DIRECTORY));
  if (!place.descriptor || ::fstat(place.descriptor.get(), &place.status) != 0) {
    return fail(errno, path);
  }
  if (isRefused(place, place.status)) return false;
  at_ = std::move(place);
  return true;
}

bool PathWalk::goOn() {
  const auto name = std::move(parts_.front());
  parts_.pop_front();
  const bool isOwn = ownParts_ > parts_.size();
  ownParts_ = std::min(ownParts_, parts_.size());
  return name == "." || enter(name, isOwn);
}

/// Goes from the folder that was reached to what it has under `name`.
bool PathWalk::enter(const std::string& name, bool isOwn) {
  const bool isLast = parts_.empty();
  if (isLast) noteFolder(name);
  auto place = openOrMake(name, isOwn && missing_ == Missing::made);
  if (!place) return false;
  const bool isLink = S_ISLNK(place->status.st_mode);
  if (isLink && isLast && lastLink_ == LastLink::kept) return reach(*std::move(place));
  if (isRefused(*place, at_.status)) return false;
  return isLink ? follow(*std::move(place)) : reach(*std::move(place));
}

/// Makes what was judged the folder from which the way goes on, or its end.
bool PathWalk::reach(Place place) {
  if (!parts_.empty()) {
    if (!S_ISDIR(place.status.st_mode)) return fail(ENOTDIR, std::move(place.path));
    at_ = std::move(place);
    return true;
  }
  path_ = std::move(place.path);
  endStatus_ = place.status;
  end_ = std::move(place.descriptor);
  return true;
}

bool PathWalk::follow(Place link) {
  if (++links_ > kMostLinks) return fail(ELOOP, link.path);
  if (isLinkToOpenFile(link.descriptor)) {
    const auto name = link.path.substr(link.path.rfind('/') + 1);
    auto target = open(name, kLook);
    if (!target) return false;
    ledThroughOpenFile_ = parts_.empty();
    return !isRefused(*target, at_.status) && reach(*std::move(target));
  }
  std::array<char, PATH_MAX> text;
  const auto length = ::readlinkat(link.descriptor.get(), "", text.data(), text.size());
  if (length < 0) return fail(errno, link.path);
  const std::string target(text.data(), static_cast<std::size_t>(length));
  if (target.empty()) return fail(ENOENT, link.path);
  // What the link leads to lies in a folder of its own.
  folder_.reset();
  addParts(target);
  return !target.starts_with('/') || begin("/");
}

std::optional<PathWalk::Place> PathWalk::open(const std::string& name, int flags) {
  Place place;
  place.path = joined(at_.path, name);
  place.descriptor.reset(::openat(at_.descriptor.get(), name.c_str(), flags));
  if (!place.descriptor || ::fstat(place.descriptor.get(), &place.status) != 0) {
    fail(errno, place.path);
    return std::nullopt;
  }
  return place;
}

std::optional<PathWalk::Place> PathWalk::openOrMake(const std::string& name, bool mayMake) {
  // As a folder first, which has the system mount what it mounts when it is entered.
  const int flags = kLook | O_NOFOLLOW;
  auto place = open(name, flags | O_DIRECTORY);
  if (!place && (error_ == ENOTDIR || error_ == ELOOP)) {
    place = open(name, flags);
  } else if (!place && error_ == ENOENT && mayMake) {
    if (::mkdirat(at_.descriptor.get(), name.c_str(), kPrivateFolder) != 0 && errno != EEXIST) {
      fail(errno, joined(at_.path, name));
      return std::nullopt;
    }
    place = open(name, flags);
  }
  if (place) error_ = 0;
  return place;
}

bool PathWalk::isRefused(const Place& place, const struct stat& folder) {
  refusal_ = judge_({place.path, folder, place.status});
  if (refusal_) path_ = place.path;
  return refusal_.has_value();
}

bool PathWalk::fail(int error, std::string path) {
  error_ = error;
  path_ = std::move(path);
  return false;
}

}  // namespace kestrowan
