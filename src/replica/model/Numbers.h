#pragma once

#include <chrono>
#include <cstdint>

namespace kestrowan::replica::model {

/// Names one item for the life of a replica. Never used twice; `none` is no item.
enum class ItemNumber : std::uint64_t { none = 0, root = 1 };

/// Names bytes of a file. The same number stands for the same bytes, so a write takes a new one.
/// `none`: the bytes are not on this disk.
enum class Content : std::uint64_t { none = 0 };

/// Names one intent. Never used twice.
enum class IntentNumber : std::uint64_t { none = 0 };

/// Names one conflict: the items that are its sides bear it. Never used twice.
enum class ConflictNumber : std::uint64_t { none = 0 };

/// A point in time, by the clock that goes on while the process does not run.
using Time = std::chrono::sys_time<std::chrono::milliseconds>;
/// A time of a file, as programs see it.
using FileTime = std::chrono::sys_time<std::chrono::nanoseconds>;
/// `now`, or a nanosecond after `before` where that is later.
constexpr FileTime later(FileTime before, FileTime now) {
  return before < now ? now : before + std::chrono::nanoseconds(before < FileTime::max() ? 1 : 0);
}
/// A date as providers give it.
using Date = std::chrono::sys_seconds;

}  // namespace kestrowan::replica::model
