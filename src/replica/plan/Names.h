#pragma once

#include <string>
#include <string_view>

namespace kestrowan::replica::plan {

/// What names mean, and names for what cannot stay under its own. `number` counts from 1 until a
/// name is free; each gives another valid name.
class Names {
 public:
  virtual ~Names() = default;

  /// What has this name, and what is in it, is never sent.
  virtual bool staysHere(std::string_view name) const = 0;

  /// For contents of ours that lie beside the provider's.
  virtual std::string conflict(std::string_view name, unsigned number) const = 0;
  /// For an item of ours whose place is the provider's.
  virtual std::string aside(std::string_view name, unsigned number) const = 0;
  /// By which an item of the provider goes while others change places with it.
  virtual std::string third(std::string_view name, unsigned number) const = 0;
};

}  // namespace kestrowan::replica::plan
