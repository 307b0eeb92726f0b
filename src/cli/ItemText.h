#pragma once

#include <cstdint>
#include <string>

#include "platform/fileprovider/NSFileProviderItem.h"

namespace kestrowan::cli {

/// "drwnx", "-r---" and the like: d for a folder, then reading, writing, renaming (n) and deleting
/// (x).
std::string capabilityText(const NSFileProviderItem& item);

/// In which time dates are shown: that of this machine's zone, or UTC.
enum class Zone : bool { local, utc };
/// A date as "2026-01-31 12:00:00", or as "2026-01-31 12:00:00 +0100" `withZone`; "-" when absent.
std::string dateText(const std::optional<NSDate>& date, Zone zone, bool withZone = false);

/// Bytes in a short form, as "12.3 MiB".
std::string byteText(std::int64_t bytes);

/// "1 file", "2 files"; `several` for a word that takes no "s".
std::string counted(std::int64_t number, const std::string& one, const std::string& several = "");

/// How a long listing shows sizes and dates.
struct LongForm {
  /// As `byteText` has them, instead of as numbers of bytes.
  bool areSizesShort = false;
  Zone zone = Zone::local;
};
/// One line of a long listing, without a line end.
std::string longLine(const NSFileProviderItem& item, std::string_view name, const LongForm& form);

/// Every property of an item, a line each.
std::string itemDescription(const NSFileProviderItem& item, std::string_view path, Zone zone);

}  // namespace kestrowan::cli
