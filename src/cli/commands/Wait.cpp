#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <thread>

#include "cli/Console.h"
#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/ProgressLine.h"
#include "cli/commands/HostCommands.h"
#include "host/CommandAdvice.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// The host is asked again and again, so that the state can be shown meanwhile.
constexpr std::chrono::milliseconds kStep = 1s;
constexpr std::chrono::milliseconds kPatience = 3min;
/// How much longer than the command's own limit a host may take to answer.
constexpr std::chrono::milliseconds kMargin = 2s;

std::string stateText(const JSONValue& answer) {
  std::string state = counted(integer(answer, "pending"), "change") + " waiting";
  if (flag(answer, "offline")) state += "; the server cannot be reached";
  if (const auto held = text(answer, "held"); !held.empty())
    state += "; held: " + escapedForDisplay(held);
  return state;
}

ExitCode finished(const GlobalOptions& options, const JSONValue& answer, ExitCode code,
                  const std::string& complaint) {
  if (options.json) {
    Output::standard().write(answer.serialized() + "\n");
  } else if (!complaint.empty()) {
    complain(complaint);
  }
  return code;
}

/// The host's answer when everything is sent, or after `step`. A host that hangs is not waited for
/// beyond `left`, the rest of the command's limit.
JSONValue asked(const host::HostEntry& host, std::chrono::milliseconds step,
                std::optional<std::chrono::milliseconds> left) {
  const JSONValue::Object request{{"request", "wait"}, {"limit", std::int64_t{step.count()}}};
  if (!left) return ask(host, request, kPatience);
  try {
    return ask(host, request, std::max(*left, 0ms) + kMargin);
  } catch (const NSError& error) {
    if (!error.is(NSPOSIXErrorDomain, ETIMEDOUT)) throw;
    throw HostFailure(ExitCode::timedOut,
                      escapedForDisplay(host.mountPoint) + ": " + error.localizedDescription());
  }
}

}  // namespace

ExitCode wait(const GlobalOptions& options, const std::optional<std::string>& mountPoint,
              std::optional<std::chrono::seconds> limit) {
  return reportingFailure(options.json, [&] {
    const auto host = runningHost(mountPoint);
    const auto start = Clock::now();
    ProgressLine line(!options.json);
    while (true) {
      const auto now = Clock::now();
      std::optional<std::chrono::milliseconds> left;
      if (limit) {
        left = std::chrono::duration_cast<std::chrono::milliseconds>(start + *limit - now);
      }
      const auto step = std::clamp(left.value_or(kStep), 0ms, kStep);
      const auto answer = asked(host, step, left);
      line.clear();
      if (flag(answer, "synced")) return finished(options, answer, ExitCode::done, "");
      const auto refused = integer(answer, "refused");
      if (refused > 0 && refused == integer(answer, "pending")) {
        return finished(options, answer, ExitCode::partlyFailed,
                        counted(refused, "change") +
                            " refused, and not tried again unless you retry or discard; see: " +
                            host::statusCommand(host));
      }
      if (limit && Clock::now() - start >= *limit) {
        return finished(options, answer, ExitCode::timedOut, "time is over: " + stateText(answer));
      }
      line.show(stateText(answer));
      // An answer that comes at once, because nothing is under way, would come at once again.
      std::this_thread::sleep_until(now + step);
    }
  });
}

}  // namespace kestrowan::cli
