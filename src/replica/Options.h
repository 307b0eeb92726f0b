#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/remote/ArrivingContents.h"
#include "replica/remote/CallAnswers.h"
#include "replica/remote/IdentifierForm.h"

namespace kestrowan::replica {

/// What is left free of a disk of that capacity, in bytes, when the options say nothing else: the
/// larger of 2 GiB and a twentieth.
inline std::int64_t freeSpaceFloor(std::int64_t capacity) {
  return std::max(std::int64_t{2} << 30, capacity / 20);
}

/// The replica's settings. Sizes are bytes.
struct Options {
  /// What the provider's identifiers look like; items with others are not admitted.
  remote::IdentifierForm identifiers = remote::IdentifierForm::paths();
  /// Whether the provider would refuse an item of that name in that folder; may be empty, for a
  /// provider of which that is not known beforehand.
  std::function<bool(const NSFileProviderItemIdentifier& folder, std::string_view name)>
      wouldRefuse;
  /// A content version without what may change in it while the contents stay as they are; the whole
  /// version when this is empty. Size and date are compared besides.
  std::function<NSData(const NSData& version)> lastingPart;
  /// Whether a content version in an answer to a change or a fetch says nothing of the contents;
  /// only an empty one does when this is empty.
  std::function<bool(const NSData& version)> saysNothing;
  /// Whether the last listing of a folder, which was asked for so long ago, came whole; each did
  /// when this is empty. One that did not proves nothing by what it lacks. Called with locks held,
  /// and must not call back.
  std::function<bool(const NSFileProviderItemIdentifier& folder, std::chrono::milliseconds age)>
      cameWhole;
  /// Tells of contents while they arrive. When this is empty, every file is fetched whole before it
  /// is opened.
  remote::ArrivalWatch watchArrival;
  /// Tells what the server answered. When this is empty, the provider's errors are all that is
  /// known.
  remote::AnswerWatch watchAnswers;
  /// Files of at least so many bytes can be read while they arrive; 0 for none.
  std::int64_t streamFrom = std::int64_t{1} << 20;
  /// Stands in the names of conflict copies.
  std::string hostName = "here";

  bool localOnlyNames = true;
  /// Moves between folders fail with EXDEV instead of being passed on.
  bool refuseMovesBetweenFolders = false;
  /// `close` and `fsync` wait until the provider has the contents.
  bool closeWaits = false;
  bool fsyncWaits = false;

  /// How much of what could be fetched again may lie here; 0 for the smaller of 10 GiB and a tenth
  /// of the disk.
  std::int64_t cacheLimit = 0;
  /// What is left free of the disk; 0 for what `freeSpaceFloor` says.
  std::int64_t freeSpaceFloor = 0;
  /// How much the history may take; 0 for the smaller of 10 GiB and a twentieth of the disk. And
  /// how long contents stay in it.
  std::int64_t historyLimit = 0;
  std::chrono::hours historyTime{7 * 24};
  /// Contents used within this time are not evicted to make room.
  std::chrono::seconds evictionAge{600};

  /// Whether contents are fetched for programs that work in the background too; and how large the
  /// files are that are fetched for thumbnailers otherwise.
  bool backgroundMayFetch = false;
  std::int64_t thumbnailSize = std::int64_t{1} << 20;

  /// How many files programs may have open at once; 0 for any number.
  std::size_t openFiles = 0;

  unsigned metadataCalls = 8;
  unsigned downloads = 4;
  unsigned uploads = 4;

  /// From the last change of contents until they are sent.
  std::chrono::milliseconds sendDelay{1000};
  /// How long a change of names waits for the provider's word.
  std::chrono::milliseconds verdictWait{3000};
  /// How long a listing is taken as it is; how long it is good while a new one is on its way; how
  /// long a call waits for a new one after that.
  std::chrono::milliseconds freshTime{2000};
  std::chrono::milliseconds usableTime{30000};
  std::chrono::milliseconds listingWait{3000};
};

}  // namespace kestrowan::replica
