#include <string>
#include <utility>
#include <vector>

#include "cli/Console.h"
#include "cli/HostLink.h"
#include "cli/Operands.h"
#include "cli/commands/HostCommands.h"
#include "host/PathForm.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::cli {

namespace {

using namespace std::chrono_literals;

/// A version that stays may have to be moved at the server.
constexpr std::chrono::milliseconds kPatience = 1min;

std::string placeText(const host::HostEntry& host, const JSONValue& conflict,
                      std::string_view member) {
  const auto path = host::pathIn(conflict, member);
  return path.empty() ? "not there any more" : escapedForDisplay(host.mountPoint + path);
}

/// The conflicts of one mount.
JSONValue::Array asked(const host::HostEntry& host) {
  const auto status = ask(host, JSONValue::Object{{"request", "status"}, {"limit", 0}}, kPatience);
  const auto* conflicts = status.member("conflicts");
  return conflicts != nullptr && conflicts->array() != nullptr ? *conflicts->array()
                                                               : JSONValue::Array{};
}

ExitCode resolveOne(const GlobalOptions& options, const std::string& keep,
                    const std::string& path) {
  const auto place = runningPlace(path);
  const auto answer = askAbout(place, path, {{"request", "resolve"}, {"keep", keep}}, kPatience);
  auto& out = Output::standard();
  if (options.json) {
    out.write(answer.serialized() + "\n");
  } else if (keep == "both") {
    out.write("both stay\n");
  } else {
    const auto kept = out.forDisplay(place.host.mountPoint + host::pathIn(answer, "path"));
    out.write(kept + " stays; the other version is in the history\n");
  }
  return ExitCode::done;
}

}  // namespace

ExitCode conflicts(const GlobalOptions& options) {
  return reportingFailure(options.json, [&] {
    auto& out = Output::standard();
    bool isFirst = true;
    for (const auto& host : chosenHosts(std::nullopt)) {
      for (const auto& conflict : asked(host)) {
        if (options.json) {
          JSONValue::Object form = *conflict.object();
          host::addPath(form, "mountPoint", host.mountPoint);
          out.write(JSONValue(std::move(form)).serialized() + "\n");
          continue;
        }
        out.write((std::exchange(isFirst, false) ? "" : "\n") +
                  ("mine:   " + placeText(host, conflict, "path")) + "\n" +
                  "theirs: " + placeText(host, conflict, "theirs") + "\n");
      }
    }
    if (isFirst && !options.json) out.write("no conflicts\n");
    return ExitCode::done;
  });
}

ExitCode resolve(const GlobalOptions& options, const std::string& keep,
                 const std::vector<std::string>& paths) {
  return forEach(paths, [&](const std::string& path) {
    return reportingFailure(options.json, [&] { return resolveOne(options, keep, path); });
  });
}

}  // namespace kestrowan::cli
