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

std::int64_t sizeOf(const Item& file) {
  const There* state = shownState(file);
  const bool isProviders = state && file.here() && file.here()->content == state->content;
  if (isProviders) return state->size;
  return file.attributes().size.value_or(state ? state->size : 0);
}

Seen seen(const Item& item) {
  const Attributes& own = item.attributes();
  const There* state = shownState(item);
  Seen result;
  if (item.isFile()) result.size = sizeOf(item);
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
