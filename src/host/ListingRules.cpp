#include "host/ListingRules.h"

#include <string>

#include "host/StatusForm.h"
#include "items/FPItem.h"
#include "platform/network/FinishedTransfers.h"

namespace kestrowan::host {

namespace {

/// Both ends of an age are whole milliseconds.
constexpr std::chrono::milliseconds kRounding{2};

}  // namespace

bool cameWhole(const NSFileProviderItemIdentifier& folder, std::chrono::milliseconds age) {
  auto path = FPItem::path(folder);
  if (!path.ends_with('/')) path += '/';
  const auto since = FinishedTransfers::Clock::now() - age - kRounding;
  return !FinishedTransfers::shared().hasDoubtful(
      "PROPFIND", since, [&](const std::string& url) { return urlPath(url) == path; });
}

}  // namespace kestrowan::host
