#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "cli/Background.h"
#include "cli/Console.h"
#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/ServerPath.h"
#include "cli/commands/HostCommands.h"
#include "host/Directories.h"
#include "host/Host.h"
#include "host/StaleMount.h"
#include "mount/Fusermount.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

namespace {

using namespace std::chrono_literals;

/// A host may take as long as it was told to drain, and a while more.
constexpr std::chrono::milliseconds kUnmountPatience = 24h;
/// One that is told to end at once takes a few seconds, unless it hangs.
constexpr std::chrono::milliseconds kForcePatience = 10s;

/// What it does after its answer, such as closing its database, takes a moment.
constexpr std::chrono::milliseconds kEndPatience = 10s;

std::string absolutePath(const std::string& path) {
  if (path.empty()) throw UsageError("an empty path names nothing");
  const auto absolute =
      (std::filesystem::path(currentDirectory()) / path).lexically_normal().string();
  return absolute.size() > 1 && absolute.ends_with('/') ? absolute.substr(0, absolute.size() - 1)
                                                        : absolute;
}

host::HostSettings settingsFor(const GlobalOptions& options, const MountCommand& command) {
  host::HostSettings settings;
  if (!host::isDomainName(command.domain)) {
    throw UsageError("a domain's name is 1 to 64 letters, digits, \"-\", \"_\" and \".\"");
  }
  settings.domain = command.domain;
  settings.mountPoint = absolutePath(command.mountPoint);
  settings.stateDirectory = command.stateDirectory ? absolutePath(*command.stateDirectory)
                                                   : host::standardStateDirectory(command.domain);
  settings.drain = std::chrono::seconds(command.drain);
  settings.noexec = command.noExec;
  settings.extensionLog = options.verbose;
  settings.logsToFile = command.background;
  settings.replica.cacheLimit = static_cast<std::int64_t>(
      std::min<std::uint64_t>(command.cacheLimit, std::uint64_t{INT64_MAX}));
  settings.replica.fsyncWaits = command.fsync == "server";
  settings.replica.closeWaits = command.close == "wait";
  settings.replica.refuseMovesBetweenFolders = command.moves == "refuse";
  settings.replica.localOnlyNames = !command.noLocalNames;
  return settings;
}

/// Makes a relative container independent of the directory, which a process in the background
/// leaves.
void fixContainer() {
  const char* container = std::getenv("KESTROWAN_CONTAINER");
  if (container == nullptr || *container == '\0') return;
  ::setenv("KESTROWAN_CONTAINER", absolutePath(container).c_str(), 1);
}

ExitCode serve(host::HostSettings settings, const std::function<bool()>& ready) {
  host::Host host(std::move(settings));
  host.run(ready);
  return ExitCode::done;
}

ExitCode mountAsTold(const GlobalOptions& options, const MountCommand& command) {
  auto settings = settingsFor(options, command);
  fixContainer();
  if (!command.background) return serve(std::move(settings), [] { return true; });
  Background background;
  if (const auto code = background.divide()) return *code;
  return serve(std::move(settings), [&] { return background.ready(); });
}

/// Asks the host to end its mount, and waits until its process is gone, so that whoever comes next
/// can mount anew or remove what the host left.
JSONValue askToEnd(const host::HostEntry& host, bool force) {
  const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, host.process, 0)));
  auto answer = ask(host, JSONValue::Object{{"request", "unmount"}, {"force", force}},
                    force ? kForcePatience : kUnmountPatience);
  pollfd end{.fd = process.get(), .events = POLLIN, .revents = 0};
  if (process) ::poll(&end, 1, static_cast<int>(kEndPatience.count()));
  return answer;
}

/// Has the host end its mount, and gives its answer; {"left": null} when it hangs and its mount was
/// taken away without it, which only `force` does.
JSONValue unmounted(const host::HostEntry& host, bool force) {
  try {
    return askToEnd(host, force);
  } catch (const NSError& error) {
    if (!force || !error.is(NSPOSIXErrorDomain, ETIMEDOUT)) throw;
  }
  // Lazily at once: an orderly end would wait for the host.
  const auto complaint = mount::fusermountUnmount(host.mountPoint, true);
  if (!complaint.empty()) throw HostFailure(ExitCode::busy, escapedForDisplay(complaint));
  complain(
      escapedForDisplay(host.mountPoint) + ": its host, process " + std::to_string(host.process) +
      ", does not answer; the mount was taken away without it. Nothing is lost: what it has not "
      "sent is sent after the next mount");
  return JSONValue::Object{{"left", nullptr}};
}

}  // namespace

ExitCode mount(const GlobalOptions& options, const MountCommand& command) {
  return reportingFailure(options.json, [&] {
    try {
      return mountAsTold(options, command);
    } catch (const NSError& error) {
      throw HostFailure(
          error.is(NSPOSIXErrorDomain, EBUSY) ? ExitCode::busy : ExitCode::mountFailed,
          escapedForDisplay(error.localizedDescription()));
    }
  });
}

ExitCode unmount(const GlobalOptions& options, const std::string& mountPoint, bool force) {
  return reportingFailure(options.json, [&] {
    if (const auto left = host::hostThatLeft(mountPoint, currentDirectory())) {
      host::removeLeftMount(*left);
      if (options.json) {
        Output::standard().write("{\"left\":null}\n");
      } else {
        complain(escapedForDisplay(left->mountPoint) +
                 ": its host had died; unmounted, and nothing is lost: what it had not sent is "
                 "sent after the next mount");
      }
      return ExitCode::done;
    }
    const auto place = runningPlace(mountPoint);
    if (place.path != "/") {
      throw UsageError(escapedForDisplay(mountPoint) + " lies within the mount " +
                       escapedForDisplay(place.host.mountPoint) + "; name that to unmount it");
    }
    const auto answer = unmounted(place.host, force);
    const auto left = integer(answer, "left");
    if (options.json) {
      Output::standard().write(answer.serialized() + "\n");
    } else if (left > 0) {
      complain(counted(left, "change") +
               " could not be sent: kept here, and sent after the next mount");
    }
    return ExitCode::done;
  });
}

}  // namespace kestrowan::cli
