#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>
#include <vector>

#include "cli/Background.h"
#include "cli/Console.h"
#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/ServerPath.h"
#include "cli/commands/HostCommands.h"
#include "host/CommandAdvice.h"
#include "host/Directories.h"
#include "host/DomainChoice.h"
#include "host/Host.h"
#include "host/StaleMount.h"
#include "host/StorageBinding.h"
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

/// The words that mount in the same way, but for container, domain, state and mount point.
std::vector<std::string> wordsOf(const MountCommand& command) {
  const MountCommand usual;
  std::vector<std::string> words;
  if (command.background) words.emplace_back("--background");
  if (command.cacheLimit != usual.cacheLimit) {
    words.push_back("--cache-limit=" + std::to_string(command.cacheLimit));
  }
  if (command.historyLimit != usual.historyLimit) {
    words.push_back("--history-limit=" + std::to_string(command.historyLimit));
  }
  if (command.streaming != usual.streaming) {
    words.push_back("--streaming=" +
                    (command.streaming == 0 ? "off" : std::to_string(command.streaming)));
  }
  if (command.historyDays != usual.historyDays) {
    words.push_back("--history-days=" + std::to_string(command.historyDays));
  }
  if (command.fsync != usual.fsync) words.push_back("--fsync=" + command.fsync);
  if (command.close != usual.close) words.push_back("--close=" + command.close);
  if (command.moves != usual.moves) words.push_back("--moves=" + command.moves);
  if (command.backgroundPrograms != usual.backgroundPrograms) {
    words.push_back("--background-programs=" + command.backgroundPrograms);
  }
  for (const auto& program : command.backgroundProgram) {
    words.push_back("--background-program=" + program);
  }
  if (command.thumbnails != usual.thumbnails) {
    words.push_back("--thumbnails=" + std::to_string(command.thumbnails));
  }
  if (command.events != usual.events) words.push_back("--events=" + command.events);
  if (command.noLocalNames) words.emplace_back("--no-local-names");
  if (command.noExec) words.emplace_back("--noexec");
  if (command.noIndex) words.emplace_back("--no-index");
  if (command.drain != usual.drain) words.push_back("--drain=" + std::to_string(command.drain));
  return words;
}

/// Which storage is mounted, and where its state lies.
void chooseState(host::HostSettings& settings, const MountCommand& command) {
  settings.container = host::chosenContainer();
  settings.isOwnDomain = !command.domain && !command.stateDirectory;
  settings.domain = command.domain         ? *command.domain
                    : settings.isOwnDomain ? host::domainOf(settings.container)
                                           : host::ownDomain(settings.container);
  settings.stateDirectory = command.stateDirectory ? absolutePath(*command.stateDirectory)
                                                   : host::standardStateDirectory(settings.domain);
  settings.moveHere = command.moveHere;
}

host::HostSettings settingsFor(const GlobalOptions& options, const MountCommand& command) {
  host::HostSettings settings;
  if (command.domain && !host::isDomainName(*command.domain)) {
    throw UsageError("a domain's name is 1 to 64 letters, digits, \"-\", \"_\" and \".\"");
  }
  settings.mountPoint = absolutePath(command.mountPoint);
  chooseState(settings, command);
  settings.options = wordsOf(command);
  settings.drain = std::chrono::seconds(command.drain);
  settings.noexec = command.noExec;
  settings.noIndex = command.noIndex;
  settings.events = command.events == "on";
  settings.extensionLog = options.verbose;
  settings.logsToFile = command.background;
  settings.replica.cacheLimit = static_cast<std::int64_t>(
      std::min<std::uint64_t>(command.cacheLimit, std::uint64_t{INT64_MAX}));
  settings.replica.historyLimit = static_cast<std::int64_t>(
      std::min<std::uint64_t>(command.historyLimit, std::uint64_t{INT64_MAX}));
  settings.replica.streamFrom = static_cast<std::int64_t>(
      std::min<std::uint64_t>(command.streaming, std::uint64_t{INT64_MAX}));
  settings.replica.historyTime = std::chrono::days(command.historyDays);
  settings.replica.backgroundMayFetch = command.backgroundPrograms == "allow";
  settings.replica.thumbnailSize = static_cast<std::int64_t>(
      std::min<std::uint64_t>(command.thumbnails, std::uint64_t{INT64_MAX}));
  settings.backgroundPrograms = command.backgroundProgram;
  settings.replica.fsyncWaits = command.fsync == "server";
  settings.replica.closeWaits = command.close == "wait";
  settings.replica.refuseMovesBetweenFolders = command.moves == "refuse";
  settings.replica.localOnlyNames = !command.noLocalNames;
  return settings;
}

ExitCode serve(host::HostSettings settings, const std::function<bool()>& ready) {
  host::Host host(std::move(settings));
  host.run(ready);
  return ExitCode::done;
}

ExitCode mountAsTold(const GlobalOptions& options, const MountCommand& command) {
  auto settings = settingsFor(options, command);
  // The one that the state is for, from whatever directory, and wherever a link leads later.
  ::setenv("KESTROWAN_CONTAINER", settings.container.c_str(), 1);
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
      "sent is sent after: " +
      host::mountCommand(host));
  return JSONValue::Object{{"left", nullptr}};
}

}  // namespace

ExitCode mount(const GlobalOptions& options, const MountCommand& command) {
  return reportingFailure(options.json, [&] {
    try {
      return mountAsTold(options, command);
    } catch (const host::StorageRefusal& refusal) {
      throw HostFailure(ExitCode::otherStorage, refusal.what());
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
                 "sent after: " +
                 host::mountCommand(*left));
      }
      return ExitCode::done;
    }
    const auto place = runningPlace(mountPoint);
    if (place.path != "/") {
      throw UsageError(escapedForDisplay(mountPoint) + " lies within the mount " +
                       escapedForDisplay(place.host.mountPoint) +
                       "; this unmounts it: " + host::unmountCommand(place.host));
    }
    const auto answer = unmounted(place.host, force);
    const auto left = integer(answer, "left");
    if (options.json) {
      Output::standard().write(answer.serialized() + "\n");
    } else if (left > 0) {
      complain(counted(left, "change") +
               " could not be sent: kept here, and sent after: " + host::mountCommand(place.host));
    }
    return ExitCode::done;
  });
}

}  // namespace kestrowan::cli
