#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "replica/model/Numbers.h"

namespace kestrowan::replica::calls {

/// How often the kernel has looked items up without having forgotten them. It may know a million:
/// the counts of neighbours lie together. Guarded by its owner.
class Lookups {
 public:
  /// Once more.
  void add(model::ItemNumber item);
  /// `count` times less.
  void take(model::ItemNumber item, std::uint64_t count);
  /// Whether the kernel knows the item.
  bool has(model::ItemNumber item) const;

 private:
  static constexpr std::size_t kPage = 64;
  struct Page {
    std::array<std::uint64_t, kPage> counts{};
    /// How many of them are not 0.
    std::size_t known = 0;
  };

  /// Those with an item that is known.
  std::unordered_map<std::uint64_t, Page> pages_;
};

}  // namespace kestrowan::replica::calls
