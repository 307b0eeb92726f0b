#pragma once

#include <cstdint>
#include <string>

#include "platform/fileprovider/NSFileProviderItem.h"

namespace kestrowan::cli {

/// "drwnx", "-r---" and the like: d for a folder, then reading, writing, renaming (n) and deleting
/// (x).
std::string capabilityText(const NSFileProviderItem& item);

/// A date as "2026-01-31 12:00:00" in UTC; "-" when absent.
std::string dateText(const std::optional<NSDate>& date);

/// Bytes in a short form, as "12.3 MiB".
std::string byteText(std::int64_t bytes);

/// "1 file", "2 files"; `several` for a word that takes no "s".
std::string counted(std::int64_t number, const std::string& one, const std::string& several = "");

/// One line of a long listing, without a line end.
std::string longLine(const NSFileProviderItem& item, std::string_view name);

/// Every property of an item, a line each.
std::string itemDescription(const NSFileProviderItem& item, std::string_view path);

}  // namespace kestrowan::cli
