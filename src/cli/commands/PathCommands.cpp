#include <utility>

#include "cli/Confirmation.h"
#include "cli/Console.h"
#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/Operands.h"
#include "cli/ServerPath.h"
#include "cli/commands/HostCommands.h"
#include "host/PathForm.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

namespace {

using namespace std::chrono_literals;

/// Work on a whole tree may take the host a while.
constexpr std::chrono::milliseconds kPatience = 10min;

/// Has a host do something about the item at `place`, which the user calls `path`; in JSON its
/// answer is the report.
JSONValue askAbout(const GlobalOptions& options, const host::PlaceInMount& place,
                   const std::string& path, std::string_view request,
                   JSONValue::Object members = {}) {
  members.emplace_back("request", request);
  auto answer = cli::askAbout(place, path, std::move(members), kPatience);
  if (options.json) Output::standard().write(answer.serialized() + "\n");
  return answer;
}

JSONValue askAbout(const GlobalOptions& options, const std::string& path,
                   std::string_view request) {
  return askAbout(options, runningPlace(path), path, request);
}

ExitCode evictOne(const GlobalOptions& options, const std::string& path) {
  const auto answer = askAbout(options, path, "evict");
  const auto evicted = integer(answer, "evicted");
  std::string kept;
  for (const auto& [member, why] : {std::pair{"changed", "changed here"}, std::pair{"open", "open"},
                                    std::pair{"pinned", "pinned"}}) {
    const auto count = integer(answer, member);
    if (count > 0) kept += (kept.empty() ? "" : ", ") + std::to_string(count) + " " + why;
  }
  if (!options.json) {
    Output::standard().write("evicted " + counted(evicted, "file") + ", " +
                             byteText(integer(answer, "bytes")) +
                             (kept.empty() ? "" : "; kept: " + kept) + "\n");
  }
  if (kept.empty()) return ExitCode::done;
  return evicted > 0 ? ExitCode::partlyFailed : ExitCode::requestFailed;
}

ExitCode pinOne(const GlobalOptions& options, const std::string& path, bool pinned) {
  const auto answer = askAbout(options, path, pinned ? "pin" : "unpin");
  if (options.json) return ExitCode::done;
  const auto count = integer(answer, "files");
  const std::string files = counted(count, "file");
  const auto missing = integer(answer, "missing");
  std::string text = pinned ? files + (count == 1 ? " stays here" : " stay here")
                            : files + " may be given back to the disk";
  if (pinned && missing > 0) text += "; " + std::to_string(missing) + " still to be fetched";
  Output::standard().write(text + "\n");
  return ExitCode::done;
}

}  // namespace

ExitCode evict(const GlobalOptions& options, const std::vector<std::string>& paths) {
  return forEach(paths, [&](const std::string& path) {
    return reportingFailure(options.json, [&] { return evictOne(options, path); });
  });
}

ExitCode pin(const GlobalOptions& options, const std::vector<std::string>& paths, bool pinned) {
  return forEach(paths, [&](const std::string& path) {
    return reportingFailure(options.json, [&] { return pinOne(options, path, pinned); });
  });
}

ExitCode retry(const GlobalOptions& options, const std::optional<std::string>& path) {
  return reportingFailure(options.json, [&] {
    if (path) {
      askAbout(options, *path, "retry");
      return ExitCode::done;
    }
    for (const auto& host : chosenHosts(std::nullopt)) {
      askAbout(options, {host, "/"}, host.mountPoint, "retry");
    }
    return ExitCode::done;
  });
}

ExitCode discard(const GlobalOptions& options, const std::string& path, bool confirmed) {
  return reportingFailure(options.json, [&] {
    const auto place = runningPlace(path);
    if (!confirmed &&
        !confirmedOnTerminal("Give up all local changes of " + escapedForDisplay(path) +
                                 "? What was written here goes to the history.",
                             "discard gives up local changes; say --yes to have it done")) {
      complain("nothing was discarded");
      return ExitCode::requestFailed;
    }
    const auto answer = askAbout(options, place, path, "discard", {{"confirm", true}});
    if (!options.json) {
      const auto count = integer(answer, "discarded");
      Output::standard().write("gave up the changes of " + counted(count, "item") +
                               (count > 0 ? "; \"kestrowan history\" shows what was written" : "") +
                               "\n");
    }
    return ExitCode::done;
  });
}

}  // namespace kestrowan::cli
