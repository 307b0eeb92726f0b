#include "replica/model/Intents.h"

#include <algorithm>
#include <string>

namespace kestrowan::replica::model {

std::vector<Intent>::iterator Intents::place(IntentNumber number) {
  return std::lower_bound(
      all_.begin(), all_.end(), number,
      [](const Intent& intent, IntentNumber other) { return intent.number < other; });
}

const Intent* Intents::find(IntentNumber number) const {
  const auto found = const_cast<Intents*>(this)->place(number);
  return found != all_.end() && found->number == number ? &*found : nullptr;
}

std::vector<const Intent*> Intents::found(const Numbers& numbers) const {
  std::vector<const Intent*> result;
  for (const IntentNumber number : numbers) result.push_back(find(number));
  return result;
}

std::vector<const Intent*> Intents::of(ItemNumber item) const {
  std::vector<const Intent*> result;
  auto next = byItem_.lower_bound({item, IntentNumber::none});
  for (; next != byItem_.end() && next->first == item; ++next) {
    result.push_back(find(next->second));
  }
  return result;
}

void Intents::addAt(const Path& path, Numbers& numbers) const {
  auto next = byPath_.lower_bound({path, IntentNumber::none});
  for (; next != byPath_.end() && next->first == path; ++next) numbers.insert(next->second);
}

void Intents::addAtOrAbove(Path path, Numbers& numbers) const {
  if (byPath_.empty()) return;
  for (; !path.isRoot(); path = path.folder()) addAt(path, numbers);
}

std::vector<const Intent*> Intents::atOrAbove(const Path& path) const {
  Numbers numbers;
  addAtOrAbove(path, numbers);
  return found(numbers);
}

std::vector<const Intent*> Intents::around(const Path& path) const {
  Numbers numbers;
  addAtOrAbove(path, numbers);
  // What is below a path lies together: after the path with a slash.
  auto next = byPath_.lower_bound({path.child(""), IntentNumber::none});
  for (; next != byPath_.end() && next->first.isAtOrBelow(path); ++next) {
    numbers.insert(next->second);
  }
  return found(numbers);
}

std::vector<const Intent*> Intents::in(const Path& folder) const {
  Numbers numbers;
  auto next = byPath_.lower_bound({folder.child(""), IntentNumber::none});
  for (; next != byPath_.end() && next->first.isAtOrBelow(folder); ++next) {
    if (next->first.folder() == folder) numbers.insert(next->second);
  }
  return found(numbers);
}

void Intents::put(const Intent& intent) {
  take(intent.number);
  all_.insert(place(intent.number), intent);
  for (const Path& path : intent.paths()) byPath_.insert({path, intent.number});
  byItem_.insert({intent.item, intent.number});
  if (intent.isUnderWay()) ++underWay_;
}

void Intents::take(IntentNumber number) {
  const auto found = place(number);
  if (found == all_.end() || found->number != number) return;
  for (const Path& path : found->paths()) byPath_.erase({path, number});
  byItem_.erase({found->item, number});
  if (found->isUnderWay()) --underWay_;
  all_.erase(found);
}

}  // namespace kestrowan::replica::model
