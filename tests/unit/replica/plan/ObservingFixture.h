#pragma once

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "replica/model/View.h"
#include "replica/plan/Landing.h"
#include "unit/replica/plan/StateBuilder.h"

namespace kestrowan::test {

inline constexpr Time kStart{};

/// Listings of a provider, and what they are taken for.
class ObservingFixture : public testing::Test {
 protected:
  static Place top(const std::string& name) { return StateBuilder::top(name); }
  static ListedEntry file(const Version& version = kVersion1) { return {Kind::file, version}; }
  static ListedEntry folder() { return {Kind::folder, {}}; }

  /// One look; gives what became of it.
  Written lookOnce(Listings listings, Time began,
                   const std::vector<ItemNumber>& folders = {ItemNumber::root}) {
    Edit edit(state_.tree());
    Written written = observe(edit, folders, Shown{std::move(listings), began, {}}, doubts_);
    if (!written.lacking.empty()) return written;
    edit.commit();
    doubts_ = written.doubts;
    return written;
  }
  /// Two looks that agree, the second begins then; gives what is lacking.
  std::vector<Path> look(Listings listings, Time began = kStart,
                         const std::vector<ItemNumber>& folders = {ItemNumber::root}) {
    lookOnce(listings, began - kSuspicionTime, folders);
    return lookOnce(std::move(listings), began, folders).lacking;
  }
  std::vector<Path> lookAtRoot(Listing listing, Time began = kStart) {
    return look({{Path(), std::move(listing)}}, began);
  }
  const Item* thereAt(const Place& place) { return View(state_.tree())->thereAt(place); }

  StateBuilder state_;
  Doubts doubts_;
};

}  // namespace kestrowan::test
