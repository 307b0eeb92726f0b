#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "platform/base/UniqueFd.h"
#include "replica/model/Numbers.h"
#include "replica/pull/Stream.h"

namespace kestrowan::replica::calls {

/// The open file with one item's contents, shared by all handles on the item. The file behind it is
/// exchanged when it must not change any more, so the descriptor is used only under `mutex`: shared
/// to read and to write, exclusively to exchange it.
struct OpenContents {
  std::shared_mutex mutex;
  /// Held, before `mutex`, while the file is made one that may be changed.
  std::mutex preparing;
  /// That of its descriptor among those of programs.
  std::shared_ptr<void> place;
  /// None while the contents are on their way.
  UniqueFd file;
  model::Content number = model::Content::none;
  /// What can be read of contents that are on their way; null once they are here.
  pull::Stream::Reader stream;

  /// Only the item itself needs these bytes, and it stands on disk that they are changed: a write
  /// needs no preparation. Set and cleared under `mutex`.
  std::atomic<bool> mayChange = false;
  /// A program may have been promised that what is in it survives a power failure.
  std::atomic<bool> isPromised = false;
  /// What was written may be more than the attributes of the item say.
  std::atomic<bool> isWritten = false;
  /// The item may have mode bits that a change of its contents takes.
  std::atomic<bool> mayHavePrivileges = true;
  /// Bytes; nanoseconds since 1970-01-01 UTC.
  std::atomic<std::int64_t> size = 0;
  std::atomic<std::int64_t> modified = 0;
  std::atomic<std::int64_t> changed = 0;
  /// The last write, in milliseconds of uptime.
  std::atomic<std::int64_t> lastWrite = 0;
};

}  // namespace kestrowan::replica::calls
