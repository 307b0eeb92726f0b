#include "cli/StatusText.h"

#include <algorithm>
#include <string_view>

#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "host/PathForm.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/ShellWord.h"

namespace kestrowan::cli {

namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

std::string shownPath(const JSONValue& form, std::string_view member = "path") {
  return escapedForDisplay(host::pathIn(form, member));
}

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

std::string line(std::string_view subject, const std::string& value) {
  return padded(std::string(subject) + ":", 11) + value + "\n";
}

/// The elements of an array member; none when there is no such member.
const JSONValue::Array& elements(const JSONValue& form, std::string_view member) {
  static const JSONValue::Array kNone;
  const auto* value = form.member(member);
  return value != nullptr && value->array() != nullptr ? *value->array() : kNone;
}

std::string serverText(const JSONValue& status) {
  const auto state = text(status, "state");
  if (state == "online") return "in reach";
  if (state == "offline") {
    return "not in reach; what is here can be used, and changes are sent when it is back";
  }
  if (const auto silent = integer(status, "silent"); silent > 0) {
    return "silent for " + durationText(silent) + "; what is here can be used meanwhile";
  }
  if (state == "unanswered") {
    return "not reached yet: " + escapedForDisplay(text(status, "unanswered"));
  }
  if (state == "held") {
    return "held until the bridge file changes: " + escapedForDisplay(text(status, "held"));
  }
  return state;
}

std::string eventsText(const JSONValue& status) {
  const auto state = text(status, "events");
  const std::string unheard = "programs that watch folders hear nothing of changes at the server";
  if (state == "off") return "off; " + unheard;
  if (state == "failing") {
    return unheard + ", since the process that tells them cannot be had; it is tried again";
  }
  return "programs hear of changes at the server; " +
         counted(integer(status, "watchedFolders"), "folder is", "folders are") + " watched";
}

std::string transferText(const JSONValue& transfer) {
  const bool sends = text(transfer, "method") == "PUT";
  const auto done = integer(transfer, sends ? "sent" : "received");
  const auto expected = integer(transfer, sends ? "expectedToSend" : "expectedToReceive");
  std::string progress = byteText(done);
  if (expected > 0) {
    progress = std::to_string(std::min<std::int64_t>(done * 100 / expected, 100)) + " % of " +
               byteText(expected);
  }
  return std::string("  ") + (sends ? "sending   " : "fetching  ") + padded(progress, 20) +
         shownPath(transfer) + "\n";
}

/// `place` is the item's path on this machine.
std::string failureText(const JSONValue& failure, const std::string& place, std::int64_t now) {
  std::string reason = escapedForDisplay(text(failure, "text"));
  // The server's own answer says all.
  if (integer(failure, "status") == 0) {
    reason += " (" + escapedForDisplay(text(failure, "domain")) + " " +
              std::to_string(integer(failure, "code")) + ")";
  }
  reason += ", for " + durationText(now - integer(failure, "since"));
  const auto kind = text(failure, "class");
  if (kind == "refused") {
    const auto word = shellWord(place);
    reason += "; not tried again: save elsewhere, or run kestrowan retry " + word +
              ", or kestrowan discard " + word;
  } else if (kind == "held") {
    reason += "; waits for a new bridge file";
  } else if (integer(failure, "next") > 0) {
    reason += "; next try in " + durationText(integer(failure, "next") - now);
  }
  return "            " + reason + "\n";
}

std::string itemText(const JSONValue& item, const std::string& mountPoint, std::int64_t now) {
  const bool folder = text(item, "kind") == "folder";
  std::string row = "  " + padded(text(item, "state"), 10) + padded(text(item, "changes"), 18) +
                    padded(folder ? "-" : byteText(integer(item, "size")), 12) + shownPath(item) +
                    "\n";
  const auto* failure = item.member("failure");
  if (failure == nullptr || failure->object() == nullptr) return row;
  return row + failureText(*failure, mountPoint + host::pathIn(item, "path"), now);
}

std::string fullHistoryText(const JSONValue& status, const JSONValue& history) {
  const auto* unconfirmed = history.member("unconfirmed");
  const auto bytes = unconfirmed != nullptr ? integer(*unconfirmed, "bytes") : 0;
  return "nothing can be written: of the history, " + byteText(bytes) +
         " never reached the server, and " + byteText(integer(history, "limit")) +
         " is the limit; restore what is needed, then run kestrowan history --clear " +
         shellWord(host::pathIn(status, "mountPoint"));
}

/// The rows of an array, and how many there were more.
template <typename Row>
std::string rows(const JSONValue::Array& array, std::int64_t count, std::size_t most,
                 const Row& row) {
  const auto shown = std::min(array.size(), most);
  std::string text;
  for (std::size_t i = 0; i < shown; ++i) text += row(array[i]);
  const auto left = count - static_cast<std::int64_t>(shown);
  if (left > 0) text += "  … and " + std::to_string(left) + " more\n";
  return text;
}

}  // namespace

std::string durationText(std::int64_t seconds) {
  seconds = std::max<std::int64_t>(seconds, 0);
  const auto pair = [](std::int64_t large, const char* unit, std::int64_t small,
                       const char* smallUnit) {
    auto text = std::to_string(large) + " " + unit;
    return small > 0 ? text + " " + std::to_string(small) + " " + smallUnit : text;
  };
  if (seconds < kMinute) return std::to_string(seconds) + " s";
  if (seconds < kHour) return std::to_string(seconds / kMinute) + " min";
  if (seconds < kDay) return pair(seconds / kHour, "h", seconds % kHour / kMinute, "min");
  return pair(seconds / kDay, "d", seconds % kDay / kHour, "h");
}

std::string statusText(const JSONValue& status, std::int64_t now, std::size_t most) {
  static const JSONValue kNothing{JSONValue::Object{}};
  const auto part = [&](std::string_view member) -> const JSONValue& {
    const auto* value = status.member(member);
    return value != nullptr ? *value : kNothing;
  };
  const auto& pending = part("pending");
  const auto& cache = part("cache");
  const auto& history = part("history");
  const auto& transfers = elements(status, "transfers");
  const auto& conflicts = elements(status, "conflicts");

  std::string shown =
      line("Mount", shownPath(status, "mountPoint") + "  (domain " + text(status, "domain") +
                        ", process " + std::to_string(integer(status, "process")) + ", for " +
                        durationText(now - integer(status, "started")) + ")");
  if (const auto container = shownPath(status, "container"); !container.empty()) {
    shown += line("Container", container);
  }
  shown += line("Server", serverText(status));
  for (const auto& warning : elements(status, "warnings")) {
    if (warning.string() != nullptr) shown += line("Warning", escapedForDisplay(*warning.string()));
  }
  shown += line("Here", counted(integer(cache, "files"), "file") + ", " +
                            byteText(integer(cache, "bytes")) + ", that could be fetched again; " +
                            counted(integer(status, "items"), "item") + " known");
  if (integer(history, "files") > 0) {
    shown += line("History", counted(integer(history, "files"), "file") + ", " +
                                 byteText(integer(history, "bytes")) +
                                 ", replaced or removed; kestrowan history shows them");
  }
  if (flag(history, "full")) shown += line("Full", fullHistoryText(status, history));
  if (const auto& refused = part("refusedPrograms"); integer(refused, "count") > 0) {
    shown += line("Not fetched", "files that programs in the background wanted, " +
                                     counted(integer(refused, "count"), "time", "times") +
                                     "; last for " + text(refused, "last"));
  }
  if (!text(status, "events").empty()) shown += line("Watching", eventsText(status));
  if (integer(status, "refusedEntries") > 0) {
    shown += line("Left out", counted(integer(status, "refusedEntries"), "entry", "entries") +
                                  " of listings, for impossible names or identifiers");
  }
  const auto& partial = elements(status, "partialFolders");
  if (!partial.empty()) {
    shown += line("Incomplete",
                  "the server's list of these folders was cut short or is no proper XML; what it "
                  "lacks is not taken as removed");
    shown += rows(partial, static_cast<std::int64_t>(partial.size()), most,
                  [](const JSONValue& folder) { return "  " + shownPath(folder) + "\n"; });
  }
  const auto count = integer(pending, "count");
  const auto mountPoint = host::pathIn(status, "mountPoint");
  shown += line("To send",
                count == 0 ? "nothing"
                           : counted(count, "change") + ", " + byteText(integer(pending, "bytes")));
  shown += rows(elements(pending, "items"), count, most,
                [&](const JSONValue& item) { return itemText(item, mountPoint, now); });
  if (!transfers.empty()) {
    shown += line("Transfers", std::to_string(transfers.size()));
    shown += rows(transfers, static_cast<std::int64_t>(transfers.size()), most, transferText);
  }
  if (!conflicts.empty()) {
    shown += line("Conflicts",
                  "both sides had changed; the version from here lies beside the "
                  "server's");
    shown += rows(conflicts, static_cast<std::int64_t>(conflicts.size()), most,
                  [](const JSONValue& conflict) { return "  " + shownPath(conflict) + "\n"; });
  }
  return shown;
}

}  // namespace kestrowan::cli
