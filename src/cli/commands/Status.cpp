#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
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
constexpr std::size_t kFixedLines = 13;
constexpr std::size_t kLinesOfAnItem = 2;

/// How many items of each of so many mounts the terminal has room for.
std::size_t itemsThatFit(std::size_t mounts) {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return 10;
  const auto lines = std::max<std::size_t>(size.ws_row / mounts, kFixedLines + kLinesOfAnItem);
  return (lines - kFixedLines) / kLinesOfAnItem;
}

JSONValue asked(const host::HostEntry& host, std::int64_t limit) {
  return ask(host, JSONValue::Object{{"request", "status"}, {"limit", limit}}, kPatience);
}

/// What replaces the text that the terminal shows: each line is written over the old one, whose
/// rest is cleared, and then all that was below. Nothing is ever empty in between.
std::string redrawn(const std::string& text) {
  std::string drawn = "\033[H";
  for (const char c : text) drawn += c == '\n' ? "\033[K\n" : std::string(1, c);
  return drawn + "\033[J";
}

/// One line for each host in JSON, else their texts. `most`: see `statusText`.
std::string report(const GlobalOptions& options, const std::vector<host::HostEntry>& hosts,
                   std::int64_t limit, std::size_t most) {
  std::string text;
  for (const auto& host : hosts) {
    const auto status = asked(host, limit);
    text +=
        options.json ? status.serialized() + "\n" : statusText(status, std::time(nullptr), most);
  }
  return text;
}

ExitCode watch(const GlobalOptions& options, const std::optional<std::string>& mountPoint) {
  auto& out = Output::standard();
  const bool redraws = out.isTerminal() && !options.json;
  while (true) {
    const auto hosts = chosenHosts(mountPoint);
    const auto most = redraws ? itemsThatFit(hosts.size()) : kMostForPeople;
    const auto text = report(options, hosts, kMostForPeople, most);
    out.write(options.json ? text : redraws ? redrawn(text) : text + "\n");
    out.flush();
    std::this_thread::sleep_for(kBetween);
  }
}

}  // namespace

ExitCode status(const GlobalOptions& options, const StatusCommand& command) {
  return reportingFailure(options.json, [&] {
    if (command.watch) return watch(options, command.mountPoint);
    Output::standard().write(report(options, chosenHosts(command.mountPoint),
                                    options.json ? kMostForPrograms : kMostForPeople,
                                    kMostForPeople));
    return ExitCode::done;
  });
}

}  // namespace kestrowan::cli
