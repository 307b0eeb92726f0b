#include "cli/ItemText.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "cli/Console.h"

namespace kestrowan::cli {

namespace {

template <typename... Values>
std::string formatted(const char* format, Values... values) {
  std::array<char, 256> buffer;
  const int length = std::snprintf(buffer.data(), buffer.size(), format, values...);
  return std::string(buffer.data(), std::min(static_cast<std::size_t>(length), buffer.size() - 1));
}

}  // namespace

std::string capabilityText(const NSFileProviderItem& item) {
  const auto has = [&](NSFileProviderItemCapabilities bit, char letter) {
    return (item.capabilities() & bit) != 0 ? letter : '-';
  };
  std::string text(1, item.contentType() == UTType::folder() ? 'd' : '-');
  text += has(NSFileProviderItemCapability::allowsReading, 'r');
  text += has(NSFileProviderItemCapability::allowsWriting, 'w');
  text += has(NSFileProviderItemCapability::allowsRenaming, 'n');
  text += has(NSFileProviderItemCapability::allowsDeleting, 'x');
  return text;
}

std::string dateText(const std::optional<NSDate>& date, Zone zone, bool withZone) {
  if (!date) return "-";
  const auto seconds = static_cast<std::time_t>(std::floor(date->timeIntervalSince1970));
  std::tm parts{};
  const bool isUTC = zone == Zone::utc;
  const auto* split = isUTC ? ::gmtime_r(&seconds, &parts) : ::localtime_r(&seconds, &parts);
  if (split == nullptr) return "-";
  const char* format = withZone ? "%Y-%m-%d %H:%M:%S %z" : "%Y-%m-%d %H:%M:%S";
  std::array<char, 64> buffer;
  return std::string(buffer.data(), std::strftime(buffer.data(), buffer.size(), format, &parts));
}

std::string byteText(std::int64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  if (bytes < 1024) return formatted("%lld B", static_cast<long long>(bytes));
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (value /= 1024; value >= 1024 && unit + 1 < kUnits.size(); value /= 1024) ++unit;
  return formatted("%.1f %s", value, kUnits[unit]);
}

std::string counted(std::int64_t number, const std::string& one, const std::string& several) {
  return std::to_string(number) + " " + (number == 1 ? one : several.empty() ? one + "s" : several);
}

std::string longLine(const NSFileProviderItem& item, std::string_view name, const LongForm& form) {
  const auto size = item.documentSize();
  std::string sizeText = "-";
  if (size) sizeText = form.areSizesShort ? byteText(*size) : std::to_string(*size);
  return formatted("%s %12s  %-19s  ", capabilityText(item).c_str(), sizeText.c_str(),
                   dateText(item.contentModificationDate(), form.zone).c_str())
      .append(name);
}

std::string itemDescription(const NSFileProviderItem& item, std::string_view path, Zone zone) {
  const auto& out = Output::standard();
  const auto size = item.documentSize();
  const auto type = item.contentType();
  const auto version = item.itemVersion();
  return "path:         " + out.forDisplay(path) + "\n" +                         //
         "name:         " + out.forDisplay(item.filename()) + "\n" +              //
         "identifier:   " + out.forDisplay(item.itemIdentifier()) + "\n" +        //
         "parent:       " + out.forDisplay(item.parentItemIdentifier()) + "\n" +  //
         "type:         " + (type ? type->identifier() : "-") + "\n" +            //
         "capabilities: " + capabilityText(item) + " (" + std::to_string(item.capabilities()) +
         ")\n" +  //
         "size:         " + (size ? std::to_string(*size) + " bytes" : "-") + "\n" +
         "modified:     " + dateText(item.contentModificationDate(), zone, true) + "\n" +
         "version:      " + out.forDisplay(version.contentVersion) + "\n";
}

}  // namespace kestrowan::cli
