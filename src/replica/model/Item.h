#pragma once

#include <cstdint>
#include <vector>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/model/Attributes.h"
#include "replica/model/Numbers.h"
#include "replica/model/OptionalHere.h"
#include "replica/model/OptionalTime.h"
#include "replica/model/Place.h"
#include "replica/model/Shared.h"
#include "replica/model/Slabs.h"
#include "replica/model/Version.h"

namespace kestrowan::replica::model {

enum class Kind : std::uint8_t { file, folder };

/// What is kept of capabilities: all that have a name.
constexpr std::uint16_t keptCapabilities(NSFileProviderItemCapabilities capabilities) {
  return static_cast<std::uint16_t>(capabilities & 0xFFFF);
}

/// What the provider has of an item.
struct There {
  Place place;
  Version version;
  /// The bytes of that version; `none` for a folder, and while they are not known.
  Content content = Content::none;
  /// Empty for the one that follows from the place: the folder's, "/" and the name.
  Bytes identifier;
  /// Bytes, at least 0; 0 for a folder.
  std::int64_t size = 0;
  /// Absent when the provider gave none.
  OptionalTime<Date> date;
  /// Those of `NSFileProviderItemCapability` that `keptCapabilities` leaves.
  std::uint16_t capabilities = 0;
  /// False for a version that says nothing of the contents.
  bool isVersionKnown = true;

  friend bool operator==(const There&, const There&) = default;
};

/// One file or folder in its three states. What is to be done about it is a function of them:
///
///     here     as programs see it; absent once it was removed here
///     there    as the provider showed it last; absent while the provider has it not
///     agreed   the merge base: the state of `there` that `here` takes into account; absent when
///              there is none
///
///     there differs from agreed   the provider has changed it: that is to be merged into `here`
///     here differs from agreed    a program has changed it: that is to be sent
///
/// A removed item is one without `here`; it needs no place among those that programs see. Owned by
/// the tree's state, read under its lock, and changed by an `Edit` alone.
class Item : public InSlabs {
 public:
  Item(ItemNumber number, Kind kind) : number_(number), kind_(kind) {}

  ItemNumber number() const { return number_; }
  bool isFile() const { return kind_ == Kind::file; }
  bool isFolder() const { return kind_ == Kind::folder; }
  Kind kind() const { return kind_; }
  const OptionalHere& here() const { return here_; }
  const Shared<There>& there() const { return there_; }
  const Shared<There>& agreed() const { return agreed_; }
  /// The items whose contents must have arrived before this one is removed at the provider. In
  /// ascending order; items that are no more may be among them.
  const std::vector<ItemNumber>& after() const;
  const Attributes& attributes() const;

  /// The provider has other contents of this file than those that `here` takes into account, or has
  /// it although there is no agreed state. False for a folder that is known.
  bool isNewThere() const;
  /// What the provider showed last is taken into account in `here`.
  bool isMerged() const;
  /// The three states are the same: there is nothing to merge and nothing to send. So it is with an
  /// item whose name stays here, as long as it is here alone.
  bool isInStep() const;

  friend bool operator==(const Item&, const Item&) = default;

 private:
  friend class State;
  friend class Restorer;

  /// What few items have.
  struct Rest {
    std::vector<ItemNumber> after;
    Attributes attributes;

    friend bool operator==(const Rest&, const Rest&) = default;
  };

  void setRest(Rest rest);
  Rest rest() const;

  /// In the room of one of the two.
  ItemNumber number_ : 56;
  Kind kind_ : 8;
  OptionalHere here_;
  Shared<There> there_;
  Shared<There> agreed_;
  Shared<Rest> rest_;
};

}  // namespace kestrowan::replica::model
