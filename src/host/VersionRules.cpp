#include "host/VersionRules.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kestrowan::host {

namespace {

/// In the place of an entity tag; no server's tag is without quotation marks or a digit.
constexpr std::array<std::string_view, 4> kWords = {"new", "modified", "downloaded", "root"};

std::string_view tagOf(std::string_view version) {
  const auto size = version.rfind('|');
  if (size == std::string_view::npos || size == 0) return version;
  return version.substr(0, version.rfind('|', size - 1));
}

std::string_view withoutWeakness(std::string_view version) {
  if (version.starts_with("W/")) version.remove_prefix(2);
  return version;
}

}  // namespace

bool saysNothing(const NSData& version) {
  return std::find(kWords.begin(), kWords.end(), tagOf(version)) != kWords.end();
}

bool sameContents(const NSData& known, const NSData& listed) {
  return withoutWeakness(known) == withoutWeakness(listed);
}

}  // namespace kestrowan::host
