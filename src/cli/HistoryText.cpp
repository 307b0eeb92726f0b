#include "cli/HistoryText.h"

#include <array>
#include <string_view>
#include <utility>

#include "cli/HostLink.h"
#include "cli/ItemText.h"
#include "cli/StatusText.h"
#include "host/PathForm.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::cli {

namespace {

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text + " ";
}

std::string reasonText(const std::string& reason) {
  static constexpr std::array<std::pair<std::string_view, const char*>, 3> kReasons = {{
      {"updated", "changed at the server"},
      {"vanished", "gone at the server"},
      {"lost", "of a lost database"},
  }};
  for (const auto& [name, text] : kReasons) {
    if (name == reason) return text;
  }
  return reason;
}

std::string placeText(const JSONValue& entry, const std::string& mountPoint) {
  const auto path = host::pathIn(entry, "path");
  if (path.empty()) return "(no name)";
  return escapedForDisplay(path.starts_with('/') ? mountPoint + path : path);
}

std::string row(const std::string& id, const std::string& left, const std::string& size,
                const std::string& reason, const std::string& server, const std::string& path) {
  return padded(id, 8) + padded(left, 14) + padded(size, 10) + padded(reason, 21) +
         padded(server, 6) + path + "\n";
}

}  // namespace

std::string historyText(const JSONValue& history, const std::string& mountPoint, std::int64_t now) {
  const auto files = integer(history, "files");
  const auto* entries = history.member("entries");
  std::string text;
  std::int64_t shown = 0;
  if (entries != nullptr && entries->array() != nullptr && !entries->array()->empty()) {
    text += row("ID", "LEFT", "SIZE", "REASON", "SENT", "PATH");
    for (const auto& entry : *entries->array()) {
      ++shown;
      text += row(
          std::to_string(integer(entry, "id")), durationText(now - integer(entry, "at")) + " ago",
          byteText(integer(entry, "size")), reasonText(cli::text(entry, "reason")),
          cli::text(entry, "confirmed") == "once" ? "yes" : "no", placeText(entry, mountPoint));
    }
  }
  if (files > shown) text += "… and " + std::to_string(files - shown) + " more, older ones\n";
  return text + counted(files, "file") + ", " + byteText(integer(history, "bytes")) +
         (files > 0 ? "; \"kestrowan restore ID\" makes one of them again\n" : "\n");
}

}  // namespace kestrowan::cli
