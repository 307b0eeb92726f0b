#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrowan {

/// A byte string; the bytes need not be text.
using NSData = std::string;

/// The bytes that standard base64 text stands for, decoded without any option: only the 64 letters
/// and correct padding are taken, so blanks and line ends give nothing. The empty text gives
/// present, empty data.
std::optional<NSData> dataFromBase64(std::string_view text);

/// Standard base64 with padding and without line breaks.
std::string base64EncodedString(std::string_view data);

}  // namespace kestrowan
