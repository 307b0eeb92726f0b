#include "host/EventMessage.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kestrowan::host {

namespace {

/// Stands in no name and in no path.
constexpr char kEnd = '\0';

std::optional<mount::EventKind> kindOf(std::string_view text) {
  using Kind = mount::EventKind;
  for (const auto kind :
       {Kind::placeFile, Kind::makeFolder, Kind::removeFile, Kind::removeFolder, Kind::touch}) {
    if (text.size() == 1 && text.front() == static_cast<char>(kind)) return kind;
  }
  return std::nullopt;
}

/// Whether it is a name of something in a folder.
bool isName(const std::string& text) {
  return !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos;
}

}  // namespace

std::string EventMessage::packet() const {
  std::string text(1, static_cast<char>(kind));
  text += kEnd;
  for (const auto* part : {&mountPoint, &device, &name}) text += *part + kEnd;
  for (const auto& step : way) text += step + kEnd;
  return text;
}

std::optional<EventMessage> EventMessage::parse(std::string_view packet) {
  constexpr std::size_t kFixed = 4;
  std::vector<std::string> parts;
  while (!packet.empty()) {
    const auto end = packet.find(kEnd);
    if (end == std::string_view::npos) return std::nullopt;
    parts.emplace_back(packet.substr(0, end));
    packet.remove_prefix(end + 1);
  }
  if (parts.size() < kFixed) return std::nullopt;
  const auto kind = kindOf(parts[0]);
  if (!kind || parts[1].empty() || parts[2].empty()) return std::nullopt;
  EventMessage message;
  message.kind = *kind;
  message.mountPoint = std::move(parts[1]);
  message.device = std::move(parts[2]);
  message.name = std::move(parts[3]);
  message.way.assign(parts.begin() + kFixed, parts.end());
  const bool isNamed =
      isName(message.name) || (message.name.empty() && *kind == mount::EventKind::touch);
  if (!isNamed || !std::all_of(message.way.begin(), message.way.end(), isName)) return std::nullopt;
  return message;
}

}  // namespace kestrowan::host
