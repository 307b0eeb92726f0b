#pragma once

#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"

namespace kestrowan::replica::remote {

/// What the identifiers of a provider look like, and so what it may be asked for. Immutable; pure
/// functions of bytes.
class IdentifierForm {
 public:
  /// An item's identifier is its folder's, "/" and its name; in the root it is "/" and its name.
  static IdentifierForm paths();
  /// An identifier says nothing of the item's place, but begins with `prefix`.
  static IdentifierForm opaque(std::string prefix = {});

  /// Whether an item's identifier follows from where it is.
  bool arePaths() const { return arePaths_; }
  static bool isRoot(std::string_view identifier);
  /// Whether an item other than the root can have that identifier.
  bool isItem(std::string_view identifier) const;
  /// Whether it can be that of any item: the only identifiers that are ever asked for.
  bool isAskable(std::string_view identifier) const {
    return isRoot(identifier) || isItem(identifier);
  }
  /// Whether an item of that name, in the folder of that identifier, can have that identifier.
  bool isProper(std::string_view identifier, std::string_view folder, std::string_view name) const;

 private:
  IdentifierForm(bool arePaths, std::string prefix);

  bool arePaths_;
  std::string prefix_;
};

}  // namespace kestrowan::replica::remote
