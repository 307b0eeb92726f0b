#include "replica/model/Seen.h"

#include <chrono>

namespace kestrowan::replica::model {

const There* shownState(const Item& item) {
  if (item.agreed()) return &*item.agreed();
  return item.there() ? &*item.there() : nullptr;
}

bool isConflictCopy(const Item& item) {
  const ConflictNumber conflict = item.attributes().conflict;
  return conflict != ConflictNumber::none &&
         static_cast<std::uint64_t>(conflict) != static_cast<std::uint64_t>(item.number());
}

FileTime modifiedOf(const There& there) {
  using std::chrono::nanoseconds;
  using std::chrono::seconds;
  const seconds date = there.date.value_or(Date()).time_since_epoch();
  if (date > std::chrono::floor<seconds>(nanoseconds::max())) return FileTime::max();
  if (date < std::chrono::ceil<seconds>(nanoseconds::min())) return FileTime::min();
  return FileTime(date);
}

Seen seen(const Item& item) {
  const Attributes& own = item.attributes();
  const There* state = shownState(item);
  Seen result;
  if (item.isFile()) result.size = own.size.value_or(state ? state->size : 0);
  if (own.modified) {
    result.modified = *own.modified;
  } else if (state) {
    result.modified = modifiedOf(*state);
  }
  result.accessed = own.accessed;
  result.mode = own.mode;
  result.mayBeWritten =
      !state || (state->capabilities & NSFileProviderItemCapability::allowsWriting) != 0;
  result.user = own.user;
  result.conflict = own.conflict;
  return result;
}

}  // namespace kestrowan::replica::model
