#include "unit/replica/plan/NameUses.h"

#include <algorithm>
#include <numeric>

namespace kestrowan::test {

namespace {

std::uint64_t mixed(std::uint64_t value) {
  value ^= value >> 31;
  value *= 0x9E3779B97F4A7C15;
  value ^= value >> 29;
  value *= 0xBF58476D1CE4E5B9;
  return value ^ value >> 32;
}

}  // namespace

void NameUses::add(std::string_view text, std::uint64_t use) {
  for (std::size_t i = 0; i < names_.size(); ++i) {
    const char own = names_[i].front();
    if (text.find(own) == std::string_view::npos) continue;
    std::uint64_t figure = use + 1;
    for (const char letter : text) {
      const bool isOther = std::any_of(names_.begin(), names_.end(), [&](const std::string& name) {
        return name.front() == letter;
      });
      const char shown = letter == own ? '\1' : isOther ? '\2' : letter;
      figure = mixed(figure * 131 + static_cast<unsigned char>(shown));
    }
    figures_[i] += figure;
  }
}

std::vector<Renaming> NameUses::inOrder() const {
  std::vector<std::size_t> order(names_.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  // Names that are not used come last, and stay in their own order.
  const auto isBefore = [&](std::size_t a, std::size_t b) {
    return figures_[a] - 1 < figures_[b] - 1;
  };
  std::stable_sort(order.begin(), order.end(), isBefore);
  const auto isSame = [&](const std::vector<std::size_t>& other) {
    for (std::size_t i = 0; i < other.size(); ++i) {
      const bool isUnused = figures_[other[i]] == 0;
      if (figures_[other[i]] != figures_[order[i]] || (isUnused && other[i] != order[i])) {
        return false;
      }
    }
    return true;
  };
  std::vector<Renaming> result;
  std::vector<std::size_t> other = order;
  std::sort(other.begin(), other.end());
  do {
    if (!isSame(other)) continue;
    std::vector<std::string> from;
    for (const std::size_t name : other) from.push_back(names_[name]);
    result.emplace_back(from, names_);
  } while (std::next_permutation(other.begin(), other.end()));
  return result;
}

}  // namespace kestrowan::test
