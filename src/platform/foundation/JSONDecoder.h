#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kestrowan {

/// One JSON object, decoded member by member as a record of known types, strictly: a value of
/// another type is an error, the first of duplicate members counts, members that nobody asks for
/// are ignored. The text may be UTF-8, UTF-16 or UTF-32, with or without a byte order mark.
/// Immutable once made; usable from every thread.
class KeyedDecodingContainer {
 public:
  /// Throws `NSError` (`NSCocoaErrorDomain`, `NSCoderReadCorruptError`) when `json` is not
  /// well-formed, nested more than 512 deep, or not an object.
  explicit KeyedDecodingContainer(std::string_view json);
  KeyedDecodingContainer(const KeyedDecodingContainer&) = delete;
  KeyedDecodingContainer& operator=(const KeyedDecodingContainer&) = delete;
  ~KeyedDecodingContainer();

  /// The member as a whole number in the signed 64-bit range; 8443.0 and 8443e0 are whole. Throws
  /// `NSError` (`NSCocoaErrorDomain`): `NSCoderValueNotFoundError` when absent,
  /// `NSCoderReadCorruptError` when of another kind or out of range.
  std::int64_t decodeInt64(std::string_view key) const;
  /// The member as text; throws as `decodeInt64` does.
  std::string decodeString(std::string_view key) const;

 private:
  struct Members;
  std::unique_ptr<Members> members_;
};

}  // namespace kestrowan
