#include "mount/Names.h"

#include <cerrno>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::mount {

std::string checkedName(const char* name) {
  constexpr std::size_t kLongestName = 255;
  std::string checked(name);
  if (checked.size() > kLongestName) throw posixError(ENAMETOOLONG);
  return checked;
}

std::string checkedNewName(const char* name) {
  auto checked = checkedName(name);
  if (!isValidUTF8(checked)) throw posixError(EILSEQ);
  return checked;
}

}  // namespace kestrowan::mount
