#include "cli/Circumstance.h"

#include "cli/AnsweredError.h"
#include "cli/Requests.h"
#include "cli/ServerPath.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSString.h"
#include "platform/types/UTType.h"

namespace kestrowan::cli {

namespace {

constexpr std::int64_t kMissing = 404;
constexpr std::int64_t kUnauthorized = 401;

enum class Seen { nothing, file, folder, unknown };

Seen look(CommandContext& context, const std::string& path) {
  try {
    const auto item = context.patience().await(lookUp(context.extension(), identifier(path)));
    return item->contentType() == UTType::folder() ? Seen::folder : Seen::file;
  } catch (const NSError& error) {
    return answerStatus(error) == kMissing ? Seen::nothing : Seen::unknown;
  }
}

bool isTaken(const NSError& error) {
  return error.is(NSCocoaErrorDomain, NSFileWriteFileExistsError);
}

/// Whether a look may tell more than the answer.
bool isRefusal(const NSError& error) {
  const auto status = answerStatus(error).value_or(0);
  return isTaken(error) || (status >= 400 && status <= 499 && status != kUnauthorized);
}

Circumstance missing() {
  return {"missing", "not there"};
}

std::optional<Circumstance> ofFolder(CommandContext& context, const std::string& path) {
  const auto folder = stringByDeletingLastPathComponent(path);
  switch (look(context, folder)) {
    case Seen::nothing:
      return Circumstance{"no-folder", "its folder " + escapedForDisplay(folder) + " is not there"};
    case Seen::file:
      return Circumstance{"no-folder", escapedForDisplay(folder) + " is a file, not a folder"};
    default:
      return std::nullopt;
  }
}

std::optional<Circumstance> ofTaken(Attempt attempt, Seen seen) {
  const bool isFolder = seen == Seen::folder;
  switch (attempt) {
    case Attempt::makeFile:
      if (!isFolder) return std::nullopt;
      return Circumstance{"is-folder",
                          "is a folder; to put the file into it, end the path in \"/\""};
    case Attempt::moveTo:
      return Circumstance{"exists", isFolder ? "already there, and a folder; to move into it, end "
                                               "the path in \"/\""
                                             : "already there"};
    default:
      return Circumstance{"exists",
                          isFolder ? "already there" : "already there, and a file, not a folder"};
  }
}

}  // namespace

std::optional<Circumstance> circumstanceOf(CommandContext& context, Attempt attempt,
                                           const std::string& path, const NSError& error) {
  if (!isRefusal(error)) return std::nullopt;
  const bool isMissing = answerStatus(error) == kMissing;
  switch (attempt) {
    case Attempt::list:
    case Attempt::read:
    case Attempt::remove:
      return isMissing ? std::optional(missing()) : std::nullopt;
    case Attempt::fetch:
      if (isMissing) return missing();
      if (look(context, path) != Seen::folder) return std::nullopt;
      return Circumstance{"is-folder", "is a folder; list it with ls, and get its files"};
    case Attempt::makeFile:
    case Attempt::makeFolder:
    case Attempt::moveTo:
      break;
  }
  const Seen seen = look(context, path);
  if (seen == Seen::nothing) return ofFolder(context, path);
  // Its name may be taken by what a look cannot tell.
  if (seen == Seen::unknown && !isTaken(error)) return std::nullopt;
  return ofTaken(attempt, seen);
}

}  // namespace kestrowan::cli
