#include "cli/HostLink.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "cli/Console.h"
#include "cli/JSONForms.h"
#include "host/ControlClient.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

namespace {

void report(bool json, const std::string& text, const NSError& error) {
  if (json) {
    Output::standard().write(JSONValue(JSONValue::Object{{"error", jsonForm(error)}}).serialized() +
                             "\n");
  } else {
    complain(text);
  }
}

std::string listed(const std::vector<host::HostEntry>& hosts) {
  std::string text;
  for (const auto& host : hosts) text += "\n  " + escapedForDisplay(host.mountPoint);
  return text.empty() ? "\n  nothing is mounted; see \"kestrowan mount --help\""
                      : "\n  mounted:" + text;
}

}  // namespace

ExitCode reportingFailure(bool json, const std::function<ExitCode()>& action) {
  try {
    return action();
  } catch (const HostFailure& failure) {
    report(json, failure.what(),
           NSError("kestrowan", static_cast<std::int64_t>(failure.code),
                   {{std::string(NSLocalizedDescriptionKey), failure.what()}}));
    return failure.code;
  } catch (const NSError& error) {
    report(json, escapedForDisplay(error.localizedDescription()), error);
    return error.is(NSPOSIXErrorDomain, EBUSY) ? ExitCode::busy : ExitCode::requestFailed;
  }
}

std::vector<host::HostEntry> runningHosts() {
  auto hosts = host::knownHosts();
  std::erase_if(hosts, [](const host::HostEntry& host) { return !host.running; });
  return hosts;
}

host::HostEntry runningHost(const std::optional<std::string>& mountPoint) {
  if (mountPoint) return runningPlace(*mountPoint).host;
  const auto running = runningHosts();
  if (running.size() == 1) return running.front();
  if (running.empty()) {
    throw HostFailure(ExitCode::notMounted, "nothing is mounted; see \"kestrowan mount --help\"");
  }
  throw HostFailure(ExitCode::usage,
                    "there are several mounts; name one of them" + listed(running));
}

host::PlaceInMount runningPlace(const std::string& path) {
  const auto hosts = runningHosts();
  if (auto place = host::placeInMount(hosts, path, currentDirectory())) return *std::move(place);
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
