#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/Confirmation.h"
#include "cli/Console.h"
#include "cli/HistoryText.h"
#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/ServerPath.h"
#include "cli/commands/HostCommands.h"
#include "host/PathForm.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::cli {

namespace {

using namespace std::chrono_literals;

/// The files of a large entry may have to be copied.
constexpr std::chrono::milliseconds kPatience = 10min;
constexpr std::int64_t kMostForPrograms = 10'000;
constexpr std::int64_t kMostForPeople = 100;
constexpr std::int64_t kDay = 24 * 3600;

/// A part of a mount, or all of it.
struct Part {
  host::HostEntry host;
  std::string path;
};

std::vector<Part> chosenParts(const std::optional<std::string>& path) {
  std::vector<Part> parts;
  if (path) {
    const auto place = runningPlace(*path);
    parts.push_back({place.host, place.path});
  } else {
    for (auto& host : chosenHosts(std::nullopt)) parts.push_back({std::move(host), "/"});
  }
  return parts;
}

JSONValue::Object form(std::string_view request, const Part& part) {
  JSONValue::Object form;
  form.emplace_back("request", request);
  // What has no place of its own is of the whole mount alone.
  if (part.path != "/") host::addPath(form, "path", part.path);
  return form;
}

void show(const GlobalOptions& options, const Part& part) {
  auto request = form("history", part);
  request.emplace_back("limit", options.json ? kMostForPrograms : kMostForPeople);
  const auto answer = ask(part.host, std::move(request), kPatience);
  Output::standard().write(options.json
                               ? answer.serialized() + "\n"
                               : historyText(answer, part.host.mountPoint, std::time(nullptr)));
}

void clear(const GlobalOptions& options, const Part& part, std::int64_t olderThan) {
  auto request = form("clearHistory", part);
  request.emplace_back("olderThan", olderThan);
  request.emplace_back("confirm", true);
  const auto answer = ask(part.host, std::move(request), kPatience);
  Output::standard().write(options.json
                               ? answer.serialized() + "\n"
                               : "removed " + counted(integer(answer, "cleared"), "file") + ", " +
                                     byteText(integer(answer, "bytes")) + ", from the history\n");
}

std::string question(const HistoryCommand& command) {
  std::string of = command.path ? "of " + escapedForDisplay(*command.path) : "of every mount";
  if (command.olderThan > 0) {
    of += " that is older than " + counted(command.olderThan, "day");
  }
  return "Remove the history " + of + " for good?";
}

}  // namespace

ExitCode history(const GlobalOptions& options, const HistoryCommand& command) {
  return reportingFailure(options.json, [&] {
    const auto parts = chosenParts(command.path);
    if (!command.clear) {
      if (command.olderThan > 0) throw UsageError("--older-than goes with --clear");
      for (const auto& part : parts) show(options, part);
      return ExitCode::done;
    }
    if (!command.confirmed &&
        !confirmedOnTerminal(question(command),
                             "--clear removes files for good; say --yes to have it done")) {
      complain("nothing was removed");
      return ExitCode::requestFailed;
    }
    for (const auto& part : parts) clear(options, part, command.olderThan * kDay);
    return ExitCode::done;
  });
}

ExitCode restore(const GlobalOptions& options, std::uint64_t entry,
                 const std::optional<std::string>& to) {
  return reportingFailure(options.json, [&] {
    JSONValue::Object request;
    request.emplace_back("request", "restore");
    request.emplace_back("id", static_cast<std::int64_t>(entry));
    host::HostEntry host;
    if (to) {
      const auto place = runningPlace(*to);
      host = place.host;
      host::addPath(request, "path", place.path);
    } else {
      host = runningHost(std::nullopt);
    }
    const auto answer = ask(host, std::move(request), kPatience);
    if (options.json) {
      Output::standard().write(answer.serialized() + "\n");
    } else {
      Output::standard().write(
          "restored as " +
          Output::standard().forDisplay(host.mountPoint + host::pathIn(answer, "path")) + "\n");
    }
    return ExitCode::done;
  });
}

}  // namespace kestrowan::cli
