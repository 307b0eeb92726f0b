#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "platform/foundation/NSError.h"
#include "support/MemoryArrivals.h"
#include "support/MemoryItem.h"

namespace kestrowan::test {

enum class CallKind { enumerateItems, item, fetchContents, createItem, modifyItem, deleteItem };

/// One call of the provider, when it begins.
struct Call {
  CallKind kind = CallKind::item;
  /// Where the item is, or is to be created; the identifier itself when it stands for nothing.
  std::string path;
  /// Where it is to be moved to; empty when it is not.
  std::string target = {};
  bool isFolder = false;
  /// Bytes of the contents that are sent; absent without contents.
  std::optional<std::int64_t> size = std::nullopt;

  /// As "createItem /a 12", "createItem /b folder", "modifyItem /a -> /c 12" or "item /a".
  std::string text() const;
};

/// What goes wrong with one call. One that says nothing lets it succeed.
struct Fault {
  /// How much of the call happens on the server: of several requests that it makes, perhaps only
  /// the first.
  enum class Effect { all, firstRequest, none };

  Effect effect = Effect::all;
  /// Given instead of success. A call without its whole effect that names none times out.
  std::optional<NSError> error = std::nullopt;
  /// The status with which the server answers the last request of the call, which then fails as
  /// the provider does for that, unless it names an error.
  std::optional<std::int64_t> httpStatus = std::nullopt;
  /// The call does not complete until the hung calls are released.
  bool hangs = false;
  /// Besides the latency of every call.
  std::chrono::milliseconds delay{0};
  /// Run on the loop behind the first request of the call.
  std::function<void()> afterFirstRequest = {};

  /// Of a listing: only so many entries, 0 for an empty one; and more entries at its end.
  std::optional<std::size_t> entries = std::nullopt;
  std::vector<NSFileProviderItemPtr> moreEntries = {};
  /// Of a fetch: how its contents arrive, instead of all at once.
  std::optional<Arriving> arriving = std::nullopt;
  /// Of a fetch: only so many bytes in the file.
  std::optional<std::int64_t> fileSize = std::nullopt;
  /// The last request of the call, for the item's state, is answered without an entry.
  bool withoutEntry = false;
  /// Changes each item that the call gives.
  std::function<void(MemoryItem&)> itemChange = {};
};

/// Decides on every call, on the thread that makes it.
using FaultHook = std::function<Fault(const Call&)>;

}  // namespace kestrowan::test
