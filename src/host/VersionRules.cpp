#include "host/VersionRules.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace kestrowan::host {

namespace {

constexpr std::string_view kDownloaded = "downloaded|0|";
constexpr std::string_view kWeak = "W/";

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

}  // namespace

bool saysNothing(const NSData& version) {
  if (version == "new|0|0" || version == "modified|0|0" || version == "root|0|0") return true;
  if (!version.starts_with(kDownloaded) || version.size() == kDownloaded.size()) return false;
  return std::all_of(version.begin() + kDownloaded.size(), version.end(), isDigit);
}

NSData lastingPart(const NSData& version) {
  return version.starts_with(kWeak) ? version.substr(kWeak.size()) : version;
}

bool hasTag(const NSData& version, std::string_view tag) {
  std::string plain(tag);
  std::erase(plain, '"');
  const auto size = version.rfind('|');
  const auto date = size == NSData::npos || size == 0 ? NSData::npos : version.rfind('|', size - 1);
  if (date == NSData::npos) return false;
  return lastingPart(version.substr(0, date)) == lastingPart(plain);
}

}  // namespace kestrowan::host
