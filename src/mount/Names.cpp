#include "mount/Names.h"

#include <cerrno>

#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

std::string_view checkedName(const char* name) {
  constexpr std::size_t kLongestName = 255;
  const std::string_view checked(name);
  if (checked.size() > kLongestName) throw posixError(ENAMETOOLONG);
  return checked;
}

}  // namespace kestrowan::mount
