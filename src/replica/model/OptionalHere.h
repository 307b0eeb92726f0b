#pragma once

#include <optional>
#include <utility>

#include "replica/model/Here.h"

namespace kestrowan::replica::model {

/// Where an item is here, or that it is not, in the room of the first alone.
class OptionalHere {
 public:
  OptionalHere() = default;
  OptionalHere(std::nullopt_t) {}
  OptionalHere(Here here) : here_(std::move(here)) {}
  OptionalHere(std::optional<Here> here) {
    if (here) here_ = *std::move(here);
  }

  explicit operator bool() const { return here_.place.folder != kNowhere; }
  bool has_value() const { return here_.place.folder != kNowhere; }
  const Here& operator*() const { return here_; }
  const Here* operator->() const { return &here_; }
  operator std::optional<Here>() const { return has_value() ? std::optional(here_) : std::nullopt; }
  /// Keeps the name once if it is that of `other`.
  void shareName(const Bytes& other) { here_.place.name.share(other); }

  friend bool operator==(const OptionalHere&, const OptionalHere&) = default;

 private:
  /// No folder has this number.
  static constexpr ItemNumber kNowhere{~std::uint64_t{0}};

  Here here_{{kNowhere, {}}, Content::none};
};

}  // namespace kestrowan::replica::model
