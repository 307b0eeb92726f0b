#include "replica/pull/SameBytes.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/base/UniqueFd.h"

namespace kestrowan::replica::pull {

bool haveSameBytes(const std::string& path, const std::string& other) {
  const UniqueFd first(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  const UniqueFd second(::open(other.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!first || !second) return false;
  std::array<char, 65536> left;
  std::array<char, 65536> right;
  for (off_t at = 0;;) {
    const ssize_t read = ::pread(first.get(), left.data(), left.size(), at);
    if (read < 0 || ::pread(second.get(), right.data(), right.size(), at) != read) return false;
    if (read == 0) return true;
    if (!std::equal(left.begin(), left.begin() + read, right.begin())) return false;
    at += read;
  }
}

}  // namespace kestrowan::replica::pull
