#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kestrowan::test {

/// Names of one letter each that change places with one another, wherever they stand in a name or
/// a path.
class Renaming {
 public:
  /// Every name stays.
  Renaming() = default;
  /// `from[i]` becomes `to[i]`.
  Renaming(const std::vector<std::string>& from, const std::vector<std::string>& to);

  bool isNone() const { return from_.empty(); }
  std::string operator()(std::string_view text) const;
  /// The same between quotes alone.
  std::string inQuotes(std::string_view text) const;
  Renaming inverse() const;
  /// This one, and then `next`.
  Renaming then(const Renaming& next) const;

 private:
  std::string from_;
  std::string to_;
};

}  // namespace kestrowan::test
