#include "replica/remote/IdentifierForm.h"

#include <utility>

#include "replica/remote/ValidName.h"

namespace kestrowan::replica::remote {

IdentifierForm::IdentifierForm(bool arePaths, std::string prefix)
    : arePaths_(arePaths), prefix_(std::move(prefix)) {}

IdentifierForm IdentifierForm::paths() {
  return {true, "/"};
}

IdentifierForm IdentifierForm::opaque(std::string prefix) {
  return {false, std::move(prefix)};
}

bool IdentifierForm::isRoot(std::string_view identifier) {
  return identifier == NSFileProviderRootContainerItemIdentifier;
}

bool IdentifierForm::isItem(std::string_view identifier) const {
  if (!arePaths_) {
    return !identifier.empty() && identifier.starts_with(prefix_) && !isRoot(identifier);
  }
  std::string_view rest = identifier;
  do {
    const auto slash = rest.rfind('/');
    if (slash == std::string_view::npos || !isValidName(rest.substr(slash + 1))) return false;
    rest = rest.substr(0, slash);
  } while (!rest.empty());
  return true;
}

bool IdentifierForm::isProper(std::string_view identifier, std::string_view folder,
                              std::string_view name) const {
  if (!isAskable(folder) || !isValidName(name)) return false;
  if (!arePaths_) return isItem(identifier) && identifier != folder;
  const std::string_view above = isRoot(folder) ? std::string_view() : folder;
  return identifier.size() == above.size() + 1 + name.size() && identifier.starts_with(above) &&
         identifier[above.size()] == '/' && identifier.ends_with(name);
}

}  // namespace kestrowan::replica::remote
