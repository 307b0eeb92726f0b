#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/ExitCode.h"
#include "host/Registry.h"
#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// A command of a mount ends with this code, for the reason in words.
class HostFailure : public std::runtime_error {
 public:
  HostFailure(ExitCode exitCode, const std::string& text)
      : std::runtime_error(text), code(exitCode) {}
  const ExitCode code;
};

/// Runs `action`, and reports the `HostFailure` or `NSError` that leaves it: in JSON on standard
/// output, or in words on standard error.
ExitCode reportingFailure(bool json, const std::function<ExitCode()>& action);

/// The running host whose mount is at, or holds, `mountPoint`; every running host when none is
/// named. Never empty. Throws `HostFailure`, and `UsageError` for an empty path.
std::vector<host::HostEntry> chosenHosts(const std::optional<std::string>& mountPoint);

/// The same for commands that work on one mount: the only one when none is named.
host::HostEntry runningHost(const std::optional<std::string>& mountPoint);

/// Where `path` lies in a mount that runs. Throws `HostFailure`, and `UsageError` for an empty
/// path.
host::PlaceInMount runningPlace(const std::string& path);

/// Sends a request and gives the answer. Throws `HostFailure` when the host is gone, else `NSError`
/// as the host answered.
JSONValue ask(const host::HostEntry& host, const JSONValue& request,
              std::chrono::milliseconds limit);

/// The same about the item at `place`, whose "path" it adds. An error's text begins with `path`, as
/// the user calls the item.
JSONValue askAbout(const host::PlaceInMount& place, const std::string& path,
                   JSONValue::Object request, std::chrono::milliseconds limit);

/// Members of an answer; 0, false and "" when it has none of that kind.
std::int64_t integer(const JSONValue& form, std::string_view member);
bool flag(const JSONValue& form, std::string_view member);
std::string text(const JSONValue& form, std::string_view member);

/// The process's current directory, absolute; "/" when it has been removed.
std::string currentDirectory();

}  // namespace kestrowan::cli
