#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace kestrowan::replica::model {

/// The names from the root down to an item, as the provider has them: how a request without an
/// answer remembers a place whatever becomes of the items on the way. Immutable.
class Path {
 public:
  /// The root's.
  Path() = default;
  /// The path of that text; absent when a name in it is empty.
  static std::optional<Path> fromText(std::string_view text);

  bool isRoot() const { return text_.empty(); }
  /// Of what lies under `name` in this folder.
  Path child(std::string_view name) const;
  /// Of the folder in which this lies; not to be asked of the root.
  Path folder() const;
  /// The last name; not to be asked of the root.
  std::string_view name() const;
  bool isAtOrBelow(const Path& other) const;
  /// This path after what lay at `from` has moved to `to`; the same when it is not at or below
  /// `from`.
  Path moved(const Path& from, const Path& to) const;
  /// The names with "/" between them; the root's is empty.
  const std::string& text() const { return text_; }

  friend auto operator<=>(const Path&, const Path&) = default;
  friend bool operator==(const Path&, const Path&) = default;

 private:
  explicit Path(std::string text) : text_(std::move(text)) {}

  std::string text_;
};

}  // namespace kestrowan::replica::model
