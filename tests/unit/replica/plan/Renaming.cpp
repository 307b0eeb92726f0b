#include "unit/replica/plan/Renaming.h"

#include <algorithm>

namespace kestrowan::test {

Renaming::Renaming(const std::vector<std::string>& from, const std::vector<std::string>& to) {
  if (from == to) return;
  for (std::size_t i = 0; i < from.size(); ++i) {
    from_ += from[i].at(0);
    to_ += to[i].at(0);
  }
}

std::string Renaming::operator()(std::string_view text) const {
  std::string result(text);
  if (isNone()) return result;
  for (char& letter : result) {
    const auto found = from_.find(letter);
    if (found != std::string::npos) letter = to_[found];
  }
  return result;
}

std::string Renaming::inQuotes(std::string_view text) const {
  std::string result;
  bool isInside = false;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('"', begin), text.size());
    const auto part = text.substr(begin, end - begin);
    result += isInside ? (*this)(part) : std::string(part);
    if (end < text.size()) result += '"';
    isInside = !isInside;
    begin = end + 1;
  }
  return result;
}

Renaming Renaming::inverse() const {
  Renaming result;
  result.from_ = to_;
  result.to_ = from_;
  return result;
}

Renaming Renaming::then(const Renaming& next) const {
  if (isNone()) return next;
  Renaming result;
  result.from_ = from_;
  result.to_ = next(to_);
  return result;
}

}  // namespace kestrowan::test
