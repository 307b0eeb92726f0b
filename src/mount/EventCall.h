#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "replica/Observer.h"

namespace kestrowan::mount {

/// The kernel tells programs that watch a folder of the calls that are made in it. So what changed
/// at the server is told by having a process make a call, which is answered and changes nothing.
enum class EventKind : char {
  /// A placeholder is renamed to the name: another file, or other contents.
  placeFile = 'P',
  makeFolder = 'M',
  removeFile = 'F',
  removeFolder = 'D',
  /// The mode is set to what it is: other attributes.
  touch = 'T',
};

/// One such call.
struct EventCall {
  EventKind kind = EventKind::touch;
  replica::Rid folder = 0;
  /// Empty for the folder itself, which only `touch` is for.
  std::string name;
  /// What comes to the name, is there, or goes from it.
  replica::Rid item = 0;
  /// The file that `placeFile` replaces, and what comes to the name after `removeFile` and
  /// `removeFolder`; 0 for none.
  replica::Rid other = 0;

  friend bool operator==(const EventCall&, const EventCall&) = default;
};

/// The calls that tell of a change, in their order. None when there is nothing to tell. Pure.
std::vector<EventCall> callsFor(const replica::NameChange& change);

/// The call that tells that much changed in a folder.
EventCall callForFolder(replica::Rid folder);

}  // namespace kestrowan::mount
