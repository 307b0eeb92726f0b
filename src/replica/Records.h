#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/Boxed.h"

namespace kestrowan::replica {

/// A number of the replica's own: items bear one, contents bear one. Never used twice in the life
/// of a replica; 0 stands for none.
using Number = std::uint64_t;
using Rid = Number;
using ContentNumber = Number;

inline constexpr Rid kRootRid = 1;

/// The greatest size that is taken for one: more than any disk holds, and sums of a few are numbers
/// still.
inline constexpr std::int64_t kLargestSize = std::int64_t{1} << 60;
/// The years 0 to 9999, in seconds since 1970-01-01 UTC: what is taken for a date.
inline constexpr std::int64_t kFirstDate = -62167219200;
inline constexpr std::int64_t kLastDate = 253402300799;

/// What `chmod` sets.
inline constexpr std::uint16_t kModeBits = 07777;

enum class ItemKind : std::uint8_t { file, folder };

/// What the provider last confirmed of an item.
struct Base {
  NSFileProviderItemIdentifier identifier;
  /// The folder, and the name in it, under which the provider has the item.
  Rid parent = 0;
  std::string name;
  /// The content version; bytes of the provider's own, or a digest when they are too many.
  NSData version;
  /// False for a version that says nothing of the contents: it is replaced by the next one listed.
  bool versionKnown = false;
  /// Bytes, at least 0; 0 for a folder.
  std::int64_t size = 0;
  /// Whole seconds since 1970-01-01 UTC; absent when the provider gave none, and for a folder also
  /// when something was changed here since: the next one listed is then as good as the last.
  std::optional<std::int64_t> date;
  NSFileProviderItemCapabilities capabilities = 0;

  friend bool operator==(const Base&, const Base&) = default;
};

/// Why an item's changes are not at the provider.
enum class FailureClass : std::uint8_t {
  transient,  // tried again after a while
  refused,    // not tried again unless the item changes or the user asks
  slow,       // tried again every 15 minutes
  held,       // waits for a provider that works
};

struct SyncFailure {
  FailureClass failureClass = FailureClass::transient;
  std::string domain;
  std::int64_t code = 0;
  /// For a person.
  std::string text;
  /// Seconds since 1970-01-01 UTC: since when, and when next.
  std::int64_t since = 0;
  std::int64_t next = 0;
  std::uint32_t tries = 0;

  friend bool operator==(const SyncFailure&, const SyncFailure&) = default;
};

/// A request that may have reached the provider: what it would have made true. Written before the
/// request is sent and removed with its answer, so that after a death of the process the provider
/// is asked what became of it.
struct SentRecord {
  /// The contents that were sent; 0 when the request had none.
  ContentNumber content = 0;
  std::int64_t size = 0;
  /// Seconds since 1970-01-01 UTC.
  std::int64_t at = 0;
  /// Where the item was to be afterwards.
  Rid parent = 0;
  std::string name;

  friend bool operator==(const SentRecord&, const SentRecord&) = default;
};

using AttributeMap = std::map<std::string, std::string>;

/// One item, as it is kept on disk.
struct ItemRecord {
  Rid rid = 0;
  /// Where applications see it; the folder, and the name in it.
  Rid parent = 0;
  std::string name;
  ItemKind kind = ItemKind::file;
  /// Absent for an item that the provider has not got.
  std::optional<Base> base;

  /// The contents here; 0 when there are none.
  ContentNumber content = 0;
  /// The contents here differ from those at the provider.
  bool contentsChanged = false;
  /// Bytes that applications see. For contents that are here, their file's own size is the truth.
  std::int64_t size = 0;
  /// Nanoseconds since 1970-01-01 UTC, as applications see it.
  std::int64_t modified = 0;
  /// The same: when anything that applications see of it changed last. Never set by them.
  std::int64_t changed = 0;
  /// The same: the last access, as an application set it; absent when none did.
  Boxed<std::int64_t> accessed;
  /// What an application set with `chmod`, of `kModeBits`; absent when none did.
  std::optional<std::uint16_t> mode;
  /// User attributes that applications set.
  Boxed<AttributeMap> attributes;

  /// An application removed it; the provider still has it.
  bool removed = false;
  /// Never sent: its name is of a class that stays here.
  bool localOnly = false;
  /// Kept here, and fetched when it changes.
  bool pinned = false;
  /// Seconds since 1970-01-01 UTC.
  std::int64_t lastUse = 0;

  Boxed<SyncFailure> failure;
  Boxed<SentRecord> sent;
  /// Must be sent after this item's contents were; 0 for none.
  Rid after = 0;

  /// Of a folder: when it was last listed, in milliseconds since 1970-01-01 UTC; 0 for never.
  std::int64_t listedAt = 0;

  friend bool operator==(const ItemRecord&, const ItemRecord&) = default;
};

}  // namespace kestrowan::replica
