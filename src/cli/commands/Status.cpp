#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "cli/Console.h"
#include "cli/HostLink.h"
#include "cli/StatusText.h"
#include "cli/commands/HostCommands.h"

namespace kestrowan::cli {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kPatience = 1min;
constexpr std::chrono::milliseconds kBetween = 1s;
constexpr std::int64_t kMostForPrograms = 10'000;
constexpr std::int64_t kMostForPeople = 100;
/// Lines of a status besides its lists, and lists that share what is left of the terminal.
constexpr std::size_t kFixedLines = 12;
constexpr std::size_t kLinesOfAnItem = 2;

std::size_t itemsThatFit() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return 10;
  const std::size_t lines = std::max<std::size_t>(size.ws_row, kFixedLines + kLinesOfAnItem);
  return (lines - kFixedLines) / kLinesOfAnItem;
}

JSONValue asked(const host::HostEntry& host, std::int64_t limit) {
  return ask(host, JSONValue::Object{{"request", "status"}, {"limit", limit}}, kPatience);
}

ExitCode watch(const GlobalOptions& options, const host::HostEntry& host) {
  auto& out = Output::standard();
  const bool redraws = out.isTerminal() && !options.json;
  while (true) {
    const auto status = asked(host, kMostForPeople);
    if (options.json) {
      out.write(status.serialized() + "\n");
    } else {
      const auto text =
          statusText(status, std::time(nullptr), redraws ? itemsThatFit() : kMostForPeople);
      // Home, and whatever was below is cleared once the new text stands.
      out.write(redraws ? "\033[H\033[2J" + text : text + "\n");
    }
    out.flush();
    std::this_thread::sleep_for(kBetween);
  }
}

}  // namespace

ExitCode status(const GlobalOptions& options, const StatusCommand& command) {
  return reportingFailure(options.json, [&] {
    if (command.watch) return watch(options, runningHost(command.mountPoint));
    std::vector<host::HostEntry> hosts;
    if (!command.mountPoint) hosts = runningHosts();
    if (hosts.empty()) hosts.push_back(runningHost(command.mountPoint));
    for (const auto& host : hosts) {
      const auto status = asked(host, options.json ? kMostForPrograms : kMostForPeople);
      Output::standard().write(options.json
                                   ? status.serialized() + "\n"
                                   : statusText(status, std::time(nullptr), kMostForPeople));
    }
    return ExitCode::done;
  });
}

}  // namespace kestrowan::cli
