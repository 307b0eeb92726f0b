#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

#include "mount/EventCall.h"
#include "replica/FileCalls.h"

namespace kestrowan::mount {

/// From here on numbers are those of no items.
inline constexpr replica::Rid kNoItems = replica::Rid{1} << 63;
/// A folder that none but the caller of event calls sees, in the root: its number and name, and the
/// name of the placeholder in it.
inline constexpr replica::Rid kStagingFolder = kNoItems;
inline constexpr const char* kStagingName = ".kestrowan-events";
inline constexpr const char* kPlaceholderName = "placeholder";

/// A file and a folder that stand for one that has left its name and is at another place now: a
/// call that removed that itself would be a lie to it.
inline constexpr replica::Rid kFormerFile = kNoItems + 1;
inline constexpr replica::Rid kFormerFolder = kNoItems + 2;

/// Whether the answer to a look-up by the caller is an item, and which.
struct ExpectedLookup {
  enum class Kind : std::uint8_t {
    refused,
    absent,
    staging,
    item,
    /// The same, for an item that has left that name.
    departed,
  };
  Kind kind = Kind::refused;
  replica::Rid item = 0;

  friend bool operator==(const ExpectedLookup&, const ExpectedLookup&) = default;
};

/// The one call that the caller of event calls is to make now: which of its requests belong to it.
/// Whether what the call tells still holds is for others to ask. Immutable; pure.
class ExpectedCall {
 public:
  /// `path`: the way from the root to the call's folder.
  ExpectedCall(EventCall call, std::vector<replica::FolderStep> path)
      : call_(std::move(call)), path_(std::move(path)) {}

  const EventCall& call() const { return call_; }

  ExpectedLookup lookUp(replica::Rid folder, const std::string& name) const;
  bool isMakingFolder(replica::Rid folder, const std::string& name) const;
  bool isRemoving(replica::Rid folder, const std::string& name, replica::ItemKind kind) const;
  bool isPlacing(replica::Rid folder, const std::string& name, replica::Rid newFolder,
                 const std::string& newName) const;
  bool isTouching(replica::Rid item) const;

 private:
  bool isAt(replica::Rid folder, const std::string& name) const;

  const EventCall call_;
  const std::vector<replica::FolderStep> path_;
};

}  // namespace kestrowan::mount
