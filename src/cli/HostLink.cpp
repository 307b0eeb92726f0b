#include "cli/HostLink.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "cli/Failure.h"
#include "cli/ServerPath.h"
#include "host/ControlClient.h"
#include "host/PathForm.h"
#include "host/StaleMount.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

namespace {

constexpr auto kNothingMounted = "nothing is mounted; see \"kestrowan mount --help\"";

std::string listed(const std::vector<host::HostEntry>& hosts) {
  std::string text;
  for (const auto& host : hosts) text += "\n  " + escapedForDisplay(host.mountPoint);
  return "\n  " + (text.empty() ? kNothingMounted : "mounted:" + text);
}

/// Why nothing runs: nothing is mounted, or the hosts have died.
std::string nothingRuns() {
  std::string text;
  for (const auto& left : host::hostsThatLeft()) {
    text += (text.empty() ? "" : "\n  ") + host::adviceFor(left);
  }
  return text.empty() ? kNothingMounted : text;
}

std::vector<host::HostEntry> runningHosts() {
  auto hosts = host::knownHosts();
  std::erase_if(hosts, [](const host::HostEntry& host) { return !host.running; });
  return hosts;
}

}  // namespace

ExitCode reportingFailure(bool json, const std::function<ExitCode()>& action) {
  try {
    return action();
  } catch (const HostFailure& failure) {
    reportFailure(json, failure.what(), commandError(failure.code, failure.what()));
    return failure.code;
  } catch (const NSError& error) {
    reportFailure(json, escapedForDisplay(error.localizedDescription()), error);
    return error.is(NSPOSIXErrorDomain, EBUSY) ? ExitCode::busy : ExitCode::requestFailed;
  }
}

std::vector<host::HostEntry> chosenHosts(const std::optional<std::string>& mountPoint) {
  if (mountPoint) return {runningHost(mountPoint)};
  auto hosts = runningHosts();
  if (hosts.empty()) throw HostFailure(ExitCode::notMounted, nothingRuns());
  return hosts;
}

host::HostEntry runningHost(const std::optional<std::string>& mountPoint) {
  if (mountPoint) return runningPlace(*mountPoint).host;
  const auto running = chosenHosts(std::nullopt);
  if (running.size() == 1) return running.front();
  throw HostFailure(ExitCode::usage,
                    "there are several mounts; name one of them" + listed(running));
}

host::PlaceInMount runningPlace(const std::string& path) {
  // The empty path would be the current directory, which nobody meant.
  if (path.empty()) throw UsageError("an empty path names nothing");
  const auto hosts = runningHosts();
  if (auto place = host::placeInMount(hosts, path, currentDirectory())) return *std::move(place);
  if (const auto left = host::placeThatWasLeft(path, currentDirectory())) {
    throw HostFailure(ExitCode::notMounted, host::adviceFor(left->host));
  }
  throw HostFailure(ExitCode::notMounted,
                    escapedForDisplay(path) + ": lies in no mount that runs" + listed(hosts));
}

JSONValue ask(const host::HostEntry& host, const JSONValue& request,
              std::chrono::milliseconds limit) {
  try {
    return host::askHost(host.socket, request, limit);
  } catch (const NSError& error) {
    if (error.is(NSPOSIXErrorDomain, ECONNREFUSED) || error.is(NSPOSIXErrorDomain, ECONNRESET)) {
      throw HostFailure(ExitCode::notMounted,
                        escapedForDisplay(host.mountPoint) + ": " + error.localizedDescription());
    }
    throw;
  }
}

JSONValue askAbout(const host::PlaceInMount& place, const std::string& path,
                   JSONValue::Object request, std::chrono::milliseconds limit) {
  host::addPath(request, "path", place.path);
  try {
    return ask(place.host, std::move(request), limit);
  } catch (const NSError& error) {
    throw NSError(
        error.domain(), error.code(),
        {{std::string(NSLocalizedDescriptionKey), path + ": " + error.localizedDescription()}});
  }
}

std::int64_t integer(const JSONValue& form, std::string_view member) {
  const auto* value = form.member(member);
  return value != nullptr && value->integer() != nullptr ? *value->integer() : 0;
}

bool flag(const JSONValue& form, std::string_view member) {
  const auto* value = form.member(member);
  return value != nullptr && value->boolean() != nullptr && *value->boolean();
}

std::string text(const JSONValue& form, std::string_view member) {
  const auto* value = form.member(member);
  return value != nullptr && value->string() != nullptr ? *value->string() : "";
}

std::string currentDirectory() {
  // The system call alone knows it without touching the directory, which may lie in a mount.
  const std::unique_ptr<char, void (*)(void*)> directory(::getcwd(nullptr, 0), std::free);
  // Of a directory that is gone there is no path; "/" leaves an absolute path as it is.
  return directory ? directory.get() : "/";
}

}  // namespace kestrowan::cli
