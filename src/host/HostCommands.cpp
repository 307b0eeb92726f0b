#include "host/HostCommands.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "host/Awaited.h"
#include "host/PathForm.h"
#include "host/RestoredPlace.h"
#include "host/StatusForm.h"
#include "mount/DescribedError.h"
#include "platform/foundation/Logger.h"
#include "platform/network/TransferMonitor.h"

namespace kestrowan::host {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLongestWait = 60s;
/// Seconds; more than any history is old.
constexpr std::int64_t kLongestAge = std::int64_t{1000} * 366 * 24 * 3600;
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kUsualItems = 100;
constexpr std::int64_t kMostItems = 10'000;

std::int64_t number(const JSONValue& request, std::string_view member, std::int64_t otherwise,
                    std::int64_t most) {
  const auto* value = request.member(member);
  if (value == nullptr || value->isNull()) return otherwise;
  if (value->integer() == nullptr) {
    throw describedError(EBADMSG, "\"" + std::string(member) + "\" is no whole number");
  }
  return std::clamp<std::int64_t>(*value->integer(), 0, most);
}

bool isTrue(const JSONValue& request, std::string_view member) {
  const auto* value = request.member(member);
  return value != nullptr && value->boolean() != nullptr && *value->boolean();
}

replica::KeptVersion keptVersion(const JSONValue& request) {
  using replica::KeptVersion;
  static constexpr std::array<std::pair<std::string_view, KeptVersion>, 3> kVersions = {
      {{"mine", KeptVersion::mine}, {"theirs", KeptVersion::theirs}, {"both", KeptVersion::both}}};
  const auto* keep = request.member("keep");
  for (const auto& [name, version] : kVersions) {
    if (keep != nullptr && keep->string() != nullptr && *keep->string() == name) return version;
  }
  throw describedError(EBADMSG, "\"keep\" is \"mine\", \"theirs\" or \"both\"");
}

std::int64_t secondsNow() {
  using std::chrono::system_clock;
  return std::chrono::duration_cast<std::chrono::seconds>(system_clock::now().time_since_epoch())
      .count();
}

const char* confirmedName(replica::Confirmed confirmed) {
  switch (confirmed) {
    case replica::Confirmed::never:
      return "never";
    case replica::Confirmed::once:
      return "once";
    case replica::Confirmed::notSent:
      return "notSent";
  }
  return "";
}

JSONValue::Object entryForm(const replica::HistoryEntry& entry) {
  JSONValue::Object form;
  form.emplace_back("id", static_cast<std::int64_t>(entry.content));
  if (!entry.path.empty()) addPath(form, "path", entry.path);
  form.emplace_back("reason", replica::name(entry.reason));
  form.emplace_back("at", entry.at);
  form.emplace_back("modified", entry.modified / kSecond);
  form.emplace_back("size", entry.size);
  form.emplace_back("confirmed", confirmedName(entry.confirmed));
  return form;
}

}  // namespace

HostCommands::HostCommands(replica::Replica& replica, Context context)
    : replica_(replica), context_(std::move(context)) {}

JSONValue HostCommands::answer(const JSONValue& request) const {
  static constexpr std::array<std::pair<std::string_view, Answer>, 12> kAnswers = {{
      {"status", &HostCommands::status},
      {"wait", &HostCommands::wait},
      {"evict", &HostCommands::evict},
      {"pin", &HostCommands::pin},
      {"unpin", &HostCommands::unpin},
      {"retry", &HostCommands::retry},
      {"discard", &HostCommands::discard},
      {"resolve", &HostCommands::resolve},
      {"history", &HostCommands::history},
      {"restore", &HostCommands::restore},
      {"clearHistory", &HostCommands::clearHistory},
      {"unmount", &HostCommands::unmount},
  }};
  const auto* wanted = request.member("request");
  if (wanted != nullptr && wanted->string() != nullptr) {
    for (const auto& [name, answer] : kAnswers) {
      if (name == *wanted->string()) return (this->*answer)(request);
    }
  }
  throw describedError(EBADMSG, "there is no such request");
}

ControlLane HostCommands::lane(const JSONValue& request) {
  const auto* wanted = request.member("request");
  const auto* name = wanted != nullptr ? wanted->string() : nullptr;
  if (name != nullptr && *name == "status") return ControlLane::quick;
  if (name != nullptr && *name == "unmount") return ControlLane::ending;
  return ControlLane::waiting;
}

JSONValue HostCommands::status(const JSONValue& request) const {
  const auto limit = number(request, "limit", kUsualItems, kMostItems);
  const auto status = context_.status();
  JSONValue::Object form;
  form.emplace_back("domain", context_.host.domain);
  addPath(form, "mountPoint", context_.host.mountPoint);
  addPath(form, "stateDirectory", context_.host.stateDirectory);
  addPath(form, "container", context_.host.container);
  form.emplace_back("process", static_cast<std::int64_t>(context_.host.process));
  form.emplace_back("started", context_.started);
  form.emplace_back("state", context_.isStopping()                 ? "stopping"
                             : status.held                         ? "held"
                             : status.offline                      ? "offline"
                             : status.unanswered || status.silence ? "unanswered"
                                                                   : "online");
  JSONValue::Array warnings;
  for (auto& warning : context_.warnings()) warnings.emplace_back(std::move(warning));
  form.emplace_back("warnings", std::move(warnings));
  form.emplace_back("events", context_.events());
  for (auto& member : statusForm(status, static_cast<std::size_t>(limit))) {
    form.push_back(std::move(member));
  }
  form.emplace_back("transfers", transferForms(TransferMonitor::shared().transfers()));
  return form;
}

JSONValue HostCommands::wait(const JSONValue& request) const {
  const std::chrono::milliseconds limit(
      number(request, "limit", kLongestWait.count(), kLongestWait.count()));
  std::optional<NSError> left;
  if (limit > 0ms) {
    try {
      awaited(replica_, replica_.commands().waitUntilSynced(limit), limit + kLongestLookUp);
    } catch (const NSError& error) {
      left = error;
    }
  }
  const auto status = context_.status();
  // Time that is over before it begins leaves a look at how things stand.
  const bool synced = limit > 0ms ? !left : status.pendingCount == 0;
  std::int64_t refused = std::count_if(
      status.pending.begin(), status.pending.end(),
      [](const auto& pending) { return pending.state == replica::SyncState::refused; });
  // The list is not endless. That nothing but refused changes is left is the replica's own word.
  if (left && left->is(NSPOSIXErrorDomain, EIO) && !context_.isStopping()) {
    refused = status.pendingCount;
  }
  return JSONValue::Object{{"synced", synced},
                           {"pending", status.pendingCount},
                           {"refused", refused},
                           {"offline", status.offline},
                           {"held", status.held}};
}

JSONValue HostCommands::evict(const JSONValue& request) const {
  const auto result = replica_.commands().evict(item(request));
  return JSONValue::Object{{"evicted", result.evicted},
                           {"bytes", result.bytes},
                           {"changed", result.changed},
                           {"open", result.open},
                           {"pinned", result.pinned}};
}

JSONValue HostCommands::setPinned(const JSONValue& request, bool pinned) const {
  const auto result = replica_.commands().setPinned(item(request), pinned);
  return JSONValue::Object{{"files", result.files}, {"missing", result.missing}};
}

JSONValue HostCommands::pin(const JSONValue& request) const {
  return setPinned(request, true);
}

JSONValue HostCommands::unpin(const JSONValue& request) const {
  return setPinned(request, false);
}

JSONValue HostCommands::retry(const JSONValue& request) const {
  replica_.commands().retry(item(request));
  return JSONValue::Object{};
}

JSONValue HostCommands::discard(const JSONValue& request) const {
  if (!isTrue(request, "confirm")) {
    throw describedError(EPERM, "giving up local changes asks for \"confirm\": true");
  }
  const auto count = replica_.commands().discard(item(request));
  return JSONValue::Object{{"discarded", static_cast<std::int64_t>(count)}};
}

JSONValue HostCommands::resolve(const JSONValue& request) const {
  const auto side = item(request);
  try {
    auto resolved = replica_.commands().resolve(side, keptVersion(request));
    JSONValue::Object form;
    addPath(form, "path", awaited(replica_, std::move(resolved), kLongestLookUp));
    return form;
  } catch (const NSError& error) {
    if (error.is(NSPOSIXErrorDomain, EINVAL)) {
      throw describedError(EINVAL, "there is no conflict about it");
    }
    if (error.is(NSPOSIXErrorDomain, ENOENT)) {
      throw describedError(ENOENT, "the server's version is not there any more");
    }
    throw;
  }
}

JSONValue HostCommands::history(const JSONValue& request) const {
  const auto limit = number(request, "limit", kUsualItems, kMostItems);
  const auto list = replica_.commands().history({.path = pathIn(request, "path")},
                                                static_cast<std::size_t>(limit));
  JSONValue::Array entries;
  entries.reserve(list.entries.size());
  for (const auto& entry : list.entries) entries.emplace_back(entryForm(entry));
  return JSONValue::Object{
      {"files", list.files}, {"bytes", list.bytes}, {"entries", std::move(entries)}};
}

JSONValue HostCommands::restore(const JSONValue& request) const {
  const auto id = number(request, "id", 0, INT64_MAX);
  const auto place =
      placeOfRestored(replica_, static_cast<replica::ContentNumber>(id), pathIn(request, "path"));
  auto restored = replica_.commands().restore(static_cast<replica::ContentNumber>(id), place.folder,
                                              place.name, place.ifTaken);
  JSONValue::Object form;
  addPath(form, "path", awaited(replica_, std::move(restored), kLongestLookUp));
  return form;
}

JSONValue HostCommands::clearHistory(const JSONValue& request) const {
  if (!isTrue(request, "confirm")) {
    throw describedError(EPERM, "clearing the history asks for \"confirm\": true");
  }
  replica::HistoryFilter filter{.path = pathIn(request, "path")};
  const auto age = number(request, "olderThan", 0, kLongestAge);
  if (age > 0) filter.before = secondsNow() - age;
  const auto cleared = replica_.commands().clearHistory(filter);
  return JSONValue::Object{{"cleared", cleared.files}, {"bytes", cleared.bytes}};
}

JSONValue HostCommands::unmount(const JSONValue& request) const {
  return JSONValue::Object{{"left", context_.unmount(isTrue(request, "force"))}};
}

replica::Rid HostCommands::item(const JSONValue& request) const {
  const auto path = pathIn(request, "path");
  if (!path.starts_with('/') || path.find('\0') != std::string::npos) {
    throw describedError(EINVAL, "the request needs a \"path\" that begins with \"/\"");
  }
  return awaited(replica_, replica_.commands().find(path), kLongestLookUp);
}

}  // namespace kestrowan::host
