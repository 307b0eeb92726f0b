#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrowan {

/// Text rules of the platform, for UTF-8 text in standard strings. All are pure functions, usable
/// from every thread, and keep every byte that they do not have to change.

/// The text after the last "/", trailing slashes ignored; "/" for a text of slashes only, "" for
/// "".
std::string lastPathComponent(std::string_view path);

/// The text before the last component without the slashes between; "/" for "/" and "/x", "" for a
/// single relative component. Runs of slashes count as one.
std::string stringByDeletingLastPathComponent(std::string_view path);

/// The text after the last full stop of the last component; "" when that stop is its first or last
/// character, or when a blank or a directional control follows it.
std::string pathExtension(std::string_view path);

/// `text` with its percent escapes decoded; nothing when an escape is malformed or the decoded
/// bytes are not valid UTF-8 as a whole.
std::optional<std::string> stringByRemovingPercentEncoding(std::string_view text);

/// `text` without leading and trailing white space and newlines (26 code points, U+200B included).
/// The view points into `text`.
std::string_view trimmingWhitespaceAndNewlines(std::string_view text);

/// Whether two texts are equal for a reader: canonically equivalent, so that a composed letter
/// equals its decomposed form. Texts that are not valid UTF-8 are equal when their bytes are.
bool isEqualToString(std::string_view a, std::string_view b);

/// `text` in lower case, ASCII letters and others alike.
std::string lowercaseString(std::string_view text);

/// Whether `text` is valid UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text);

/// `text` as a signed decimal number: one optional sign, ASCII digits and nothing else, within the
/// signed 64-bit range; nothing otherwise.
std::optional<std::int64_t> int64FromText(std::string_view text);

}  // namespace kestrowan
