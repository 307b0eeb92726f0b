#include "replica/pull/GivenNames.h"

#include "replica/NameRules.h"

namespace kestrowan::replica::pull {

bool GivenNames::staysHere(std::string_view name) const {
  return options_.localOnlyNames && nameClass(name) == NameClass::localOnly;
}

std::string GivenNames::conflict(std::string_view name, unsigned number) const {
  return conflictName(name, loop_.wallClock() / 1000, options_.hostName, number);
}

std::string GivenNames::aside(std::string_view name, unsigned number) const {
  return bouncedName(name, number + 1);
}

std::string GivenNames::third(std::string_view name, unsigned number) const {
  return bouncedName(name, number + 1);
}

}  // namespace kestrowan::replica::pull
