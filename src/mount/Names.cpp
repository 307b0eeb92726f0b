#include "mount/Names.h"

#include <cerrno>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::mount {

std::string_view checkedName(const char* name) {
  constexpr std::size_t kLongestName = 255;
  const std::string_view checked(name);
  if (checked.size() > kLongestName) throw posixError(ENAMETOOLONG);
  return checked;
}

std::string_view checkedNewName(const char* name) {
  const auto checked = checkedName(name);
  if (!isValidUTF8(checked)) throw posixError(EILSEQ);
  return checked;
}

}  // namespace kestrowan::mount
