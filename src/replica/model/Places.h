#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "replica/model/Item.h"

namespace kestrowan::replica::model {

/// Which item is at which place, on one side. The items belong to others; one that is in here must
/// keep its place and its address. Guarded by its owner.
class Places {
 public:
  enum class Side : std::uint8_t { here, there };

  explicit Places(Side side) : side_(side) {}

  /// Null when nothing is there.
  const Item* at(ItemNumber folder, std::string_view name) const;
  /// In the order of the names.
  std::vector<const Item*> in(ItemNumber folder) const;
  /// At most `most` of these, the first behind that name.
  std::vector<const Item*> in(ItemNumber folder, std::string_view behind, std::size_t most) const;
  /// Any of these; null when there is none.
  const Item* anyIn(ItemNumber folder) const;
  std::size_t countIn(ItemNumber folder) const;
  std::size_t countFoldersIn(ItemNumber folder) const;

  /// False when another one is at its place.
  bool add(const Item& item);
  void remove(const Item& item);

 private:
  /// A part of what is in a folder, in the order of the names; never empty.
  using Part = std::vector<const Item*>;
  /// In parts of limited length, so that an insertion moves few.
  struct Inside {
    std::vector<Part> parts;
    std::size_t count = 0;
    std::size_t folders = 0;
  };
  /// A position in a folder: the first name that is not before the one that was asked for.
  struct Spot {
    std::size_t part = 0;
    std::size_t index = 0;
  };

  const Place& placeOf(const Item& item) const;
  Spot spotOf(const Inside& inside, std::string_view name) const;
  bool isAt(const Inside& inside, Spot spot, std::string_view name) const;
  static void insert(Inside& inside, Spot spot, const Item& item);

  Side side_;
  std::unordered_map<ItemNumber, Inside> folders_;
};

}  // namespace kestrowan::replica::model
