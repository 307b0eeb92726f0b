#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <system_error>
#include <utility>

#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/commands/Finding.h"
#include "host/CommandAdvice.h"
#include "host/Directories.h"
#include "host/PathForm.h"
#include "host/StaleMount.h"
#include "mount/Fusermount.h"
#include "mount/PathTrust.h"
#include "mount/PathWalk.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kPatience = 5s;

Finding checkDevice() {
  if (UniqueFd(::open("/dev/fuse", O_RDWR | O_CLOEXEC))) {
    return {"/dev/fuse", Verdict::good, "can be opened"};
  }
  const int error = errno;
  return {"/dev/fuse", Verdict::warning,
          std::generic_category().message(error) +
              (error == ENOENT ? "; load the kernel's fuse module (modprobe fuse)"
                               : "; its mode should be 0666") +
              "; the direct commands do not need it, a mount does"};
}

Finding checkHelper() {
  try {
    const auto file = mount::fusermountProgram();
    struct stat status;
    if (::geteuid() != 0 &&
        (::stat(file.c_str(), &status) != 0 || (status.st_mode & S_ISUID) == 0)) {
      return {"fusermount3", Verdict::warning, file + ": is not set-uid, so only root can mount"};
    }
    return {"fusermount3", Verdict::good, file};
  } catch (const NSError& error) {
    return {"fusermount3", Verdict::warning,
            error.localizedDescription() + "; the direct commands do not need it, a mount does"};
  }
}

/// The way to where mounts keep their files, as far as it is there.
Finding checkState() {
  const std::string subject = "state directory";
  try {
    const auto path = host::stateHome();
    const PathWalk walk(path, trustedBy(::geteuid()));
    if (!walk.refusal()) return {subject, Verdict::good, escapedForDisplay(path)};
    return {subject, Verdict::warning, *walk.refusal() + "; a mount is refused until then"};
  } catch (const NSError& error) {
    return {subject, Verdict::warning, error.localizedDescription()};
  }
}

/// The way to where mounts have their sockets, if there is such a place.
void checkRuntime(std::vector<Finding>& found) {
  const char* value = std::getenv("XDG_RUNTIME_DIR");
  if (value == nullptr || *value == '\0') return;
  const std::string subject = "runtime directory";
  if (const auto fault = folderFault(value)) {
    found.push_back({subject, Verdict::warning,
                     *fault + "; mounts have their sockets in the state directory meanwhile"});
  } else {
    found.push_back({subject, Verdict::good, escapedForDisplay(value)});
  }
}

/// Newer kernels can abort a connection whose answers take longer than so many seconds.
void checkTimeouts(std::vector<Finding>& found) {
  for (const std::string name : {"default_request_timeout", "max_request_timeout"}) {
    long seconds = 0;
    std::ifstream setting("/proc/sys/fs/fuse/" + name);
    if (!(setting >> seconds)) continue;
    if (seconds == 0) {
      found.push_back({"fuse." + name, Verdict::good, "off"});
    } else {
      found.push_back({"fuse." + name, Verdict::warning,
                       "the kernel ends the whole mount when one answer takes longer than " +
                           std::to_string(seconds) +
                           " s, as a big download may; set it to 0 (sysctl fs.fuse." + name +
                           "=0)"});
    }
  }
}

/// How a mount is, by what its host says.
Finding mountFinding(const host::HostEntry& host, const JSONValue& status) {
  const auto shown = escapedForDisplay(host.mountPoint);
  const auto* pending = status.member("pending");
  const auto* partial = status.member("partialFolders");
  if (partial != nullptr && partial->array() != nullptr && !partial->array()->empty()) {
    return {"mount", Verdict::warning,
            shown + ": the server's list of a folder is cut short or is no proper XML, as of " +
                escapedForDisplay(host::pathIn(partial->array()->front(), "path")) +
                "; see kestrowan status"};
  }
  return {"mount", Verdict::good,
          shown + ": domain " + escapedForDisplay(host.domain) + ", for " +
              (host.container.empty() ? "a container that it does not tell"
                                      : escapedForDisplay(host.container)) +
              ": " + text(status, "state") + ", " +
              counted(pending != nullptr ? integer(*pending, "count") : 0, "change") + " to send"};
}

/// The program in the background that was refused last what it wanted to read.
std::optional<Finding> programFinding(const host::HostEntry& host, const JSONValue& status) {
  const auto* refused = status.member("refusedPrograms");
  if (refused == nullptr || integer(*refused, "count") == 0) return std::nullopt;
  return Finding{"programs", Verdict::good,
                 escapedForDisplay(host.mountPoint) +
                     ": nothing is fetched for programs in the background; the last one that "
                     "wanted it is " +
                     escapedForDisplay(text(*refused, "last")) +
                     " (--background-programs=allow lets them)"};
}

/// That watchers are told of nothing, against the user's wish.
std::optional<Finding> eventsFinding(const host::HostEntry& host, const JSONValue& status) {
  if (text(status, "events") != "failing") return std::nullopt;
  return Finding{
      "events", Verdict::warning,
      escapedForDisplay(host.mountPoint) +
          ": programs that watch folders hear nothing of changes at the server: the "
          "process that tells them cannot be started, or ends at once; it is tried again"};
}

void checkHost(const host::HostEntry& host, std::vector<Finding>& found) {
  try {
    const auto status =
        ask(host, JSONValue::Object{{"request", "status"}, {"limit", 0}}, kPatience);
    found.push_back(mountFinding(host, status));
    if (auto finding = programFinding(host, status)) found.push_back(*std::move(finding));
    if (auto finding = eventsFinding(host, status)) found.push_back(*std::move(finding));
  } catch (const NSError& error) {
    found.push_back({"mount", Verdict::bad,
                     escapedForDisplay(host.mountPoint) + ": " + error.localizedDescription()});
  } catch (const HostFailure& failure) {
    found.push_back({"mount", Verdict::bad, failure.what()});
  }
}

void checkMounts(std::vector<Finding>& found) {
  for (const auto& host : host::knownHosts()) {
    if (host.running) checkHost(host, found);
  }
  for (const auto& left : host::hostsThatLeft()) {
    found.push_back(
        {"mount", Verdict::warning,
         host::adviceFor(left) + "; this only takes it away: " + host::unmountCommand(left)});
  }
}

}  // namespace

std::vector<Finding> mountFindings() {
  std::vector<Finding> found;
  found.push_back(checkDevice());
  found.push_back(checkHelper());
  found.push_back(checkState());
  checkRuntime(found);
  checkTimeouts(found);
  try {
    checkMounts(found);
  } catch (const NSError& error) {
    found.push_back({"mount", Verdict::bad, error.localizedDescription()});
  }
  return found;
}

}  // namespace kestrowan::cli
