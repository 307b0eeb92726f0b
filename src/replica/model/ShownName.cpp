#include "replica/model/ShownName.h"

#include <string>

namespace kestrowan::replica::model {

namespace {

/// No identifier that is one of its own begins like that.
constexpr std::string_view kMark = "./";

}  // namespace

bool isShownName(std::string_view identifier) {
  return identifier.starts_with(kMark);
}

std::string_view shownName(const There& there) {
  const std::string_view own = there.identifier;
  return own.empty() ? std::string_view(there.place.name) : own.substr(kMark.size());
}

void giveName(There& there, std::string_view name) {
  if (there.place.name == name) return;
  if (there.identifier.empty())
    there.identifier = std::string(kMark) + std::string(there.place.name);
  there.place.name = std::string(name);
}

void putAt(There& there, const Place& place) {
  if (there.place.name != place.name && isShownName(there.identifier)) there.identifier = {};
  there.place = place;
}

}  // namespace kestrowan::replica::model
