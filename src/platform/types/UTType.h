#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kestrowan {

/// A uniform type identifier. Immutable value; two are equal when their identifiers are.
class UTType {
 public:
  explicit UTType(std::string_view identifier) : identifier_(identifier) {}

  /// "public.folder"
  static const UTType& folder();
  /// "public.data"
  static const UTType& data();

  /// The type that a filename extension stands for, letter case ignored, among those that conform
  /// to `conformingTo`; a dynamic type for an extension that nobody declares; nothing for an empty
  /// one. Only conformance to `data()` is known.
  static std::optional<UTType> type(std::string_view withFilenameExtension,
                                    const UTType& conformingTo);

  const std::string& identifier() const { return identifier_; }

  friend bool operator==(const UTType&, const UTType&) = default;

 private:
  std::string identifier_;
};

}  // namespace kestrowan
