#pragma once

#include <cstdint>
#include <optional>

#include "replica/model/Item.h"

namespace kestrowan::replica::model {

/// What the provider says of the bytes that programs see; null when it has none of them.
const There* shownState(const Item& item);

/// Whether an item is the copy from here of a file that both sides had changed. The other side has
/// the number of the conflict.
bool isConflictCopy(const Item& item);

/// The date of a state in nanoseconds, or the nearest that there is; 1970 when it has none.
FileTime modifiedOf(const There& there);

/// Of what programs see of a file, in bytes. What was noted of bytes that were written here says
/// nothing of the provider's.
std::int64_t sizeOf(const Item& file);

/// What programs see of an item beside its name and its bytes, as far as it follows from the item.
struct Seen {
  /// Bytes; 0 for a folder.
  std::int64_t size = 0;
  FileTime modified;
  OptionalTime<FileTime> accessed;
  std::optional<std::uint16_t> mode;
  bool mayBeWritten = true;
  Boxed<UserAttributes> user;
  ConflictNumber conflict = ConflictNumber::none;

  friend bool operator==(const Seen&, const Seen&) = default;
};
Seen seen(const Item& item);

}  // namespace kestrowan::replica::model
