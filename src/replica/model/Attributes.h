#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "replica/model/Boxed.h"
#include "replica/model/Numbers.h"
#include "replica/model/OptionalTime.h"

namespace kestrowan::replica::model {

/// What becomes of an item whose changes the provider did not take.
enum class FailureClass : std::uint8_t {
  transient,  // tried again after a while
  refused,    // not tried again unless the item changes or the user asks
  slow,       // tried again at long intervals
  held,       // waits for a provider that works
};

/// Why an item's changes are not at the provider.
struct Failure {
  FailureClass failureClass = FailureClass::transient;
  std::string domain;
  std::int64_t code = 0;
  /// For a person.
  std::string text;
  Time since;
  Time next;
  std::uint32_t tries = 0;

  friend bool operator==(const Failure&, const Failure&) = default;
};

/// The attributes of a file that programs named themselves, by those names.
using UserAttributes = std::map<std::string, std::string>;

/// What this disk keeps of an item beside its three states. It is never sent. Absent values are
/// those that follow from the states: an item without any costs nothing.
struct Attributes {
  /// Permission bits that a program set.
  std::optional<std::uint16_t> mode;
  /// Never sent: its name is of a class that stays here.
  bool localOnly = false;
  /// Kept on this disk, and fetched when it changes.
  bool pinned = false;
  Boxed<UserAttributes> user;

  /// What programs see of the contents; absent: what the provider says of the agreed state. `size`
  /// is in bytes.
  std::optional<std::int64_t> size;
  OptionalTime<FileTime> modified;
  OptionalTime<FileTime> changed;
  OptionalTime<FileTime> accessed;

  /// When a program used the contents last.
  OptionalTime<Time> lastUse;
  Boxed<Failure> failure;
  /// Of a folder: when the last listing of it that was written whole began. Absent: never listed.
  OptionalTime<Time> listedAt;
  /// Since when listings lack the item, though it counts as being there still.
  OptionalTime<Time> missingSince;
  /// The conflict that it is a side of.
  ConflictNumber conflict = ConflictNumber::none;

  friend bool operator==(const Attributes&, const Attributes&) = default;
};

}  // namespace kestrowan::replica::model
