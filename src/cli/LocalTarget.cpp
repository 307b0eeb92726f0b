#include "cli/LocalTarget.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cli/Console.h"
#include "cli/ServerPath.h"
#include "mount/PathTrust.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::cli {

namespace {

std::optional<std::string> linkFault(const PathWalk::Part& part) {
  if (!S_ISLNK(part.status.st_mode) || !othersMayWrite(part.folder)) return std::nullopt;
  return part.path +
         ": is a symbolic link in a folder that others may write in, so it is not followed; name "
         "the place that is meant";
}

/// Whether the walk ended at something that is written into, never replaced.
bool endsAtOpenEnd(const PathWalk& walk) {
  const auto mode = walk.status().st_mode;
  return walk.end() && !S_ISDIR(mode) && !S_ISLNK(mode) &&
         (!S_ISREG(mode) || walk.ledThroughOpenFile());
}

}  // namespace

LocalTarget::LocalTarget(const std::string& file, const std::string& name, Link link)
    : path_(file) {
  goTo(PathWalk::LastLink::kept);
  if (walk_->end() && leadsToFolder()) {
    // For the reason when the way to it leads through a link that is not followed.
    goTo(PathWalk::LastLink::followed);
    check();
    if (name == "/") throw UsageError("name a local file for the contents of the root");
    path_ += "/" + name;
    goTo(PathWalk::LastLink::kept);
  }
  if (walk_->end() && S_ISLNK(walk_->status().st_mode)) goThroughLink(link);
  check();
  checkEnd();
}

bool LocalTarget::isWrittenInto() const {
  return endsAtOpenEnd(*walk_);
}

UniqueFd LocalTarget::open() const {
  // Through the descriptor, so that it is what was looked at.
  const auto name = "/proc/self/fd/" + std::to_string(walk_->end().get());
  const int emptied = S_ISREG(walk_->status().st_mode) ? O_TRUNC : 0;
  UniqueFd file(::open(name.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | emptied));
  if (!file) throwUnwritable(path_, errno);
  return file;
}

void LocalTarget::replaceBy(int directory, const std::string& name) const {
  if (::renameat(directory, name.c_str(), walk_->folder().get(), walk_->name().c_str()) != 0) {
    throwUnwritable(path_, errno);
  }
}

void LocalTarget::goTo(PathWalk::LastLink lastLink) {
  walk_.emplace(path_, linkFault, lastLink);
}

/// Whether what the walk has reached is a folder or a link to one.
bool LocalTarget::leadsToFolder() const {
  struct stat status = {};
  return ::fstatat(walk_->folder().get(), walk_->name().c_str(), &status, 0) == 0 &&
         S_ISDIR(status.st_mode);
}

void LocalTarget::goThroughLink(Link link) {
  PathWalk beyond(path_, linkFault);
  if (link == Link::followed || endsAtOpenEnd(beyond)) walk_.emplace(std::move(beyond));
}

/// A file that is missing can be made, when its folder is there.
void LocalTarget::check() const {
  if (walk_->refusal()) throw OutputUnwritable(*walk_->refusal());
  const bool canBeMade = walk_->error() == ENOENT && walk_->folder();
  if (walk_->error() != 0 && !canBeMade) throwUnwritable(path_, walk_->error());
}

void LocalTarget::checkEnd() const {
  if (!walk_->end()) return;
  const auto& status = walk_->status();
  if (S_ISDIR(status.st_mode)) throwUnwritable(path_, EISDIR);
  const bool isForeign = status.st_uid != 0 && status.st_uid != ::geteuid();
  if (isWrittenInto() && isForeign && othersMayWrite(walk_->folderStatus())) {
    throw OutputUnwritable(path_ +
                           ": belongs to another user and lies in a folder that others may write "
                           "in, so nothing is written to it; name another file");
  }
}

}  // namespace kestrowan::cli
