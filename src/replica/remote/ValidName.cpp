#include "replica/remote/ValidName.h"

#include <cstddef>

namespace kestrowan::replica::remote {

namespace {

constexpr std::size_t kLongestName = 255;

}  // namespace

bool isValidName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= kLongestName &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace kestrowan::replica::remote
