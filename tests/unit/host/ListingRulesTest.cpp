#include "host/ListingRules.h"

#include <gtest/gtest.h>

#include "platform/network/FinishedTransfers.h"

namespace kestrowan::host {
namespace {

using std::chrono::milliseconds;

void finish(const std::string& path, bool whole) {
  auto body = std::make_shared<ReceivedBody>();
  body->setWhole(whole);
  FinishedTransfers::shared().add({"PROPFIND", "https://127.0.0.1:8443" + path, 207,
                                   FinishedTransfers::Clock::now(), std::move(body)});
}

TEST(ListingRules, AListingThatWasCutIsKnownByItsFolder) {
  finish("/Home/cut%20%23short/", false);
  finish("/Home/whole/", true);
  EXPECT_FALSE(cameWhole("/Home/cut #short", milliseconds(1000)));
  EXPECT_TRUE(cameWhole("/Home/whole", milliseconds(1000)));
  EXPECT_TRUE(cameWhole("/Home/cut", milliseconds(1000)));
}

TEST(ListingRules, ALookAtTheItemItselfIsNoListing) {
  finish("/Home/item", false);
  EXPECT_TRUE(cameWhole("/Home/item", milliseconds(1000)));
}

TEST(ListingRules, TheRootIsKnownByItsIdentifier) {
  const NSFileProviderItemIdentifier root(NSFileProviderRootContainerItemIdentifier);
  EXPECT_TRUE(cameWhole(root, milliseconds(1000)));
  finish("/", false);
  EXPECT_FALSE(cameWhole(root, milliseconds(1000)));
}

}  // namespace
}  // namespace kestrowan::host
