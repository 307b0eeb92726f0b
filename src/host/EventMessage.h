#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mount/EventCall.h"

namespace kestrowan::host {

/// What the process that makes event calls is asked for: one call. Sent as one packet.
struct EventMessage {
  mount::EventKind kind = mount::EventKind::touch;
  /// Where the mount is, and its device as in the table of mounts. In nothing else a call is made.
  std::string mountPoint;
  std::string device;
  /// The names that lead to the call's folder.
  std::vector<std::string> way;
  /// Empty for the folder itself.
  std::string name;

  friend bool operator==(const EventMessage&, const EventMessage&) = default;

  std::string packet() const;
  /// Absent for a packet that is none.
  static std::optional<EventMessage> parse(std::string_view packet);
};

}  // namespace kestrowan::host
