#include "replica/pull/ProviderItem.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <utility>

#include "replica/pull/Sameness.h"

namespace kestrowan::replica::pull {

using model::Date;
using model::ItemNumber;
using model::There;

namespace {

/// More than any disk holds, and sums of a few are numbers still.
constexpr std::int64_t kLargestSize = std::int64_t{1} << 60;
/// The years 0 to 9999.
constexpr Date kFirstDate{std::chrono::seconds(-62167219200)};
constexpr Date kLastDate{std::chrono::seconds(253402300799)};

std::optional<Date> wholeDate(const std::optional<NSDate>& date) {
  if (!date || !std::isfinite(date->timeIntervalSince1970)) return std::nullopt;
  const double seconds = std::floor(date->timeIntervalSince1970);
  if (seconds < static_cast<double>(kFirstDate.time_since_epoch().count()) ||
      seconds > static_cast<double>(kLastDate.time_since_epoch().count())) {
    return std::nullopt;
  }
  return Date(std::chrono::seconds(static_cast<std::int64_t>(seconds)));
}

bool followsFromPlace(std::string_view identifier, std::string_view folder, std::string_view name) {
  const std::string_view above =
      remote::IdentifierForm::isRoot(folder) ? std::string_view() : folder;
  return identifier.size() == above.size() + 1 + name.size() && identifier.starts_with(above) &&
         identifier[above.size()] == '/' && identifier.ends_with(name);
}

}  // namespace

There thereOf(const NSFileProviderItem& item, ItemNumber folder, std::string_view identifier,
              const Options& options, Source source) {
  There there;
  there.place = {folder, item.filename()};
  NSData version = item.itemVersion().contentVersion;
  there.isVersionKnown = isVersionKnown(options, version, source);
  there.version.text = keptVersion(options, std::move(version));
  there.size = std::clamp<std::int64_t>(item.documentSize().value_or(0), 0, kLargestSize);
  there.date = wholeDate(item.contentModificationDate());
  there.capabilities = model::keptCapabilities(item.capabilities());
  const auto own = item.itemIdentifier();
  if (!followsFromPlace(own, identifier, there.place.name)) there.identifier = own;
  return there;
}

}  // namespace kestrowan::replica::pull
