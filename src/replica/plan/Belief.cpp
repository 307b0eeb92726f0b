#include "replica/plan/Belief.h"

#include <algorithm>
#include <functional>
#include <string>

namespace kestrowan::replica::plan {

using model::Content;
using model::Item;
using model::ItemNumber;

namespace {

constexpr std::size_t kManyEntries = 10;
constexpr std::size_t kSomeEntries = 3;

std::uint64_t digestOf(const Listing& listing) {
  std::uint64_t digest = listing.entries.size();
  for (const auto& [name, entry] : listing.entries) {
    std::string text = name;
    text += entry.kind == model::Kind::file ? '\0' : '/';
    text += entry.version.text;
    digest = digest * 31 + std::hash<std::string>{}(text);
  }
  return digest;
}

}  // namespace

bool Belief::isBelieved(ItemNumber folder, const Listing& listing,
                        const std::vector<ItemNumber>& lacked, std::size_t known) {
  const auto lost =
      static_cast<std::size_t>(std::count_if(lacked.begin(), lacked.end(), [&](ItemNumber number) {
        const Item& item = state_.item(number);
        return item.here() && !listing.entries.contains(item.there()->place.name);
      }));
  const bool losesHalf = known >= kManyEntries && lost * 2 > known;
  const bool losesAll = listing.entries.empty() && lost >= kSomeEntries;
  if (!losesHalf && !losesAll) {
    doubts_.suspected.erase(folder);
    return true;
  }
  const std::uint64_t digest = digestOf(listing);
  const auto [found, isNew] =
      doubts_.suspected.try_emplace(folder, Doubts::Suspicion{began_, digest});
  Doubts::Suspicion& suspicion = found->second;
  if (suspicion.digest != digest) suspicion = {began_, digest};
  if (began_ - suspicion.since < kSuspicionTime) return false;
  doubts_.suspected.erase(found);
  return true;
}

bool Belief::losesNothing(const Item& item) const {
  if (item.isFile()) {
    const auto& here = item.here();
    const bool isDownloaded = here && here->content != Content::none;
    return !isDownloaded || !item.agreed() || here->content != item.agreed()->content;
  }
  const auto inside = state_.thereIn(item.number());
  return std::all_of(inside.begin(), inside.end(),
                     [&](const Item* child) { return losesNothing(*child); });
}

std::vector<ItemNumber> Belief::absent(ItemNumber folder, const Listing& listing,
                                       const std::vector<ItemNumber>& lacked, std::size_t known) {
  std::vector<ItemNumber> result;
  if (!listing.isWhole || !isBelieved(folder, listing, lacked, known)) return result;
  for (const ItemNumber number : lacked) {
    const auto since = doubts_.missing.try_emplace(number, began_).first->second;
    if (began_ - since < kSecondLook && !losesNothing(state_.item(number))) continue;
    result.push_back(number);
  }
  return result;
}

}  // namespace kestrowan::replica::plan
