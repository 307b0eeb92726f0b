#include "mount/SystemProgram.h"

#include <sys/stat.h>

#include <cerrno>
#include <optional>

#include "mount/DescribedError.h"
#include "mount/PathTrust.h"
#include "mount/PathWalk.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::mount {

namespace {

constexpr uid_t kRoot = 0;
constexpr mode_t kExecutable = S_IXUSR | S_IXGRP | S_IXOTH;

std::string listed(const std::vector<std::string>& places) {
  std::string text;
  for (const auto& place : places) text += (text.empty() ? "" : ", ") + place;
  return text;
}

}  // namespace

std::string systemProgram(const std::vector<std::string>& places) {
  std::optional<std::string> fault;
  for (const auto& place : places) {
    const PathWalk walk(place, trustedBy(kRoot));
    if (walk.refusal()) {
      if (!fault) fault = walk.refusal();
      continue;
    }
    if (walk.error() != 0 || !S_ISREG(walk.status().st_mode) ||
        (walk.status().st_mode & kExecutable) == 0) {
      continue;
    }
    if (!othersMayWrite(walk.status())) return place;
    if (!fault) {
      fault = escapedForDisplay(walk.path()) + ": others may write to it, so it is not run";
    }
  }
  if (fault) throw describedError(EACCES, *fault);
  throw describedError(ENOENT, "no program at " + listed(places));
}

}  // namespace kestrowan::mount
