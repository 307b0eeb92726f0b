#include <utility>

#include "cli/Confirmation.h"
#include "cli/Console.h"
#include "cli/HostLink.h"
#include "cli/ItemText.h"
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
  JSONValue::Object form;
  form.emplace_back("request", request);
  host::addPath(form, "path", place.path);
  for (auto& member : members) form.push_back(std::move(member));
  try {
    auto answer = ask(place.host, std::move(form), kPatience);
    if (options.json) Output::standard().write(answer.serialized() + "\n");
    return answer;
  } catch (const NSError& error) {
    throw NSError(
        error.domain(), error.code(),
        {{std::string(NSLocalizedDescriptionKey), path + ": " + error.localizedDescription()}});
  }
}

JSONValue askAbout(const GlobalOptions& options, const std::string& path,
                   std::string_view request) {
  return askAbout(options, runningPlace(path), path, request);
}

}  // namespace

ExitCode evict(const GlobalOptions& options, const std::string& path) {
  return reportingFailure(options.json, [&] {
    const auto answer = askAbout(options, path, "evict");
    const auto evicted = integer(answer, "evicted");
    std::string kept;
    for (const auto& [member, why] : {std::pair{"changed", "changed here"},
                                      std::pair{"open", "open"}, std::pair{"pinned", "pinned"}}) {
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
  });
}

ExitCode pin(const GlobalOptions& options, const std::string& path, bool pinned) {
  return reportingFailure(options.json, [&] {
    askAbout(options, path, pinned ? "pin" : "unpin");
    return ExitCode::done;
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
