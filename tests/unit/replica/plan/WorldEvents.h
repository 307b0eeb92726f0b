#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "unit/replica/plan/ModelProvider.h"
#include "unit/replica/plan/Renaming.h"

namespace kestrowan::test {

/// Something that a program does, or another client.
struct Event {
  enum class Kind : std::uint8_t {
    make,
    makeFolder,
    write,
    move,
    replace,
    swap,
    remove,  // here
    putThere,
    putSameThere,
    makeFolderThere,
    moveThere,
    removeThere,  // there
  };

  static Event here(Kind kind, Place place);
  static Event here(Kind kind, ItemNumber item, Place place);
  static Event here(Kind kind, ItemNumber item, ItemNumber other = ItemNumber::none);
  static Event there(Kind kind, Path source, Path target);
  static Event same(ItemNumber item, Path target);

  bool isHere() const { return kind < Kind::putThere; }
  std::string text() const;

  Kind kind = Kind::make;
  ItemNumber item = ItemNumber::none;
  ItemNumber other = ItemNumber::none;
  Place place;
  Path source;
  Path target;
};

/// All that may happen next, by these names. Lives no longer than what it is made of.
class WorldEvents {
 public:
  WorldEvents(const State& state, const ModelProvider& provider,
              const std::vector<std::string>& names)
      : state_(state), provider_(provider), names_(names) {}

  /// What programs may do.
  std::vector<Event> here() const;
  /// What other clients may do.
  std::vector<Event> there() const;

 private:
  std::vector<std::string> newNames() const;
  std::vector<Place> freePlaces(const std::vector<const Item*>& seen) const;
  void addSame(const std::vector<Path>& free, std::vector<Event>& events) const;

  const State& state_;
  const ModelProvider& provider_;
  const std::vector<std::string>& names_;
};

/// All items of a state, in an order that does not depend on their numbers unless they are nowhere,
/// and is that of the names after a renaming.
std::vector<const Item*> allItems(const State& state, const Renaming& renaming = Renaming());

}  // namespace kestrowan::test
