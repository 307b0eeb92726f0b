#include "replica/plan/Belief.h"

#include <algorithm>
#include <string>

namespace kestrowan::replica::plan {

using model::Content;
using model::Item;
using model::ItemNumber;
using model::State;

namespace {

constexpr std::size_t kManyEntries = 10;
constexpr std::size_t kSomeEntries = 3;

}  // namespace

void ListingDigest::add(std::string_view name, const ListedEntry& entry) {
  std::string text(name);
  text += entry.kind == model::Kind::file ? '\0' : '/';
  text += entry.version.text;
  digest_ = digest_ * 31 + std::hash<std::string>{}(text);
  ++count_;
}

bool Belief::isBelieved(const Loss& loss) {
  const bool losesHalf = loss.known >= kManyEntries && loss.lost * 2 > loss.known;
  const bool losesAll = loss.isEmpty && loss.lost >= kSomeEntries;
  if (!losesHalf && !losesAll) {
    doubts_.suspected.erase(loss.folder);
    return true;
  }
  const std::uint64_t digest = loss.digest();
  const auto [found, isNew] =
      doubts_.suspected.try_emplace(loss.folder, Doubts::Suspicion{began_, digest});
  Doubts::Suspicion& suspicion = found->second;
  if (suspicion.digest != digest) suspicion = {began_, digest};
  if (began_ - suspicion.since < kSuspicionTime) return false;
  doubts_.suspected.erase(found);
  return true;
}

bool Belief::losesNothing(const State& state, const Item& item) {
  if (item.isFile()) {
    const auto& here = item.here();
    const bool isDownloaded = here && here->content != Content::none;
    return !isDownloaded || !item.agreed() || here->content != item.agreed()->content;
  }
  const auto inside = state.thereIn(item.number());
  return std::all_of(inside.begin(), inside.end(),
                     [&](const Item* child) { return losesNothing(state, *child); });
}

bool Belief::isAbsent(ItemNumber item, bool losesNothing) {
  const auto since = doubts_.missing.try_emplace(item, began_).first->second;
  return losesNothing || began_ - since >= kSecondLook;
}

}  // namespace kestrowan::replica::plan
