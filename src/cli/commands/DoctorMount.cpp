#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/commands/Finding.h"
#include "host/CommandAdvice.h"
#include "host/StaleMount.h"
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
  const char* path = std::getenv("PATH");
  std::istringstream directories(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string directory; std::getline(directories, directory, ':');) {
    const auto file = directory + "/fusermount3";
    struct stat status;
    if (::access(file.c_str(), X_OK) != 0 || ::stat(file.c_str(), &status) != 0) continue;
    if (::geteuid() != 0 && (status.st_mode & S_ISUID) == 0) {
      return {"fusermount3", Verdict::warning,
              escapedForDisplay(file) + ": is not set-uid, so only root can mount"};
    }
    return {"fusermount3", Verdict::good, escapedForDisplay(file)};
  }
  return {"fusermount3", Verdict::warning, "not found; a mount needs the package fuse3"};
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

Finding checkHost(const host::HostEntry& host) {
  const auto shown = escapedForDisplay(host.mountPoint);
  try {
    const auto status =
        ask(host, JSONValue::Object{{"request", "status"}, {"limit", 0}}, kPatience);
    const auto* pending = status.member("pending");
    return {"mount", Verdict::good,
            shown + ": domain " + escapedForDisplay(host.domain) + ", for " +
                (host.container.empty() ? "a container that it does not tell"
                                        : escapedForDisplay(host.container)) +
                ": " + text(status, "state") + ", " +
                counted(pending != nullptr ? integer(*pending, "count") : 0, "change") +
                " to send"};
  } catch (const NSError& error) {
    return {"mount", Verdict::bad, shown + ": " + error.localizedDescription()};
  } catch (const HostFailure& failure) {
    return {"mount", Verdict::bad, failure.what()};
  }
}

void checkMounts(std::vector<Finding>& found) {
  for (const auto& host : host::knownHosts()) {
    if (host.running) found.push_back(checkHost(host));
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
  checkTimeouts(found);
  checkMounts(found);
  return found;
}

}  // namespace kestrowan::cli
