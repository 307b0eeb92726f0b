#pragma once

#include <cstdint>
#include <string_view>

#include "platform/foundation/NSData.h"
#include "replica/Options.h"
#include "replica/model/Item.h"
#include "replica/pull/ProviderItem.h"

namespace kestrowan::replica::pull {

/// Decides from what a provider says of an item at two times whether it has the same contents. All
/// else that compares versions asks here. Pure functions.

enum class Sameness : std::uint8_t {
  same,      // the versions say so
  likely,    // a version says nothing, and neither size nor date contradicts
  different  // the size or the version differs, or the date where no version tells
};

/// A version as it is kept: of at most 128 bytes. In the place of a longer one stands its lasting
/// part, or the digest of that.
NSData keptVersion(const Options& options, NSData version);

/// Whether a version says anything of the contents.
bool isVersionKnown(const Options& options, const NSData& version, Source source);

/// The version of a state that differs from another one of the same version in size or date alone:
/// with both behind it, so that the two can be told apart.
NSData distinctVersion(const model::There& there);
/// `now`, of which `known` is another state: with a version that is not that one's.
model::There asOtherState(const model::There& known, model::There now);
/// A version without what `distinctVersion` has put behind it.
std::string_view plainVersion(std::string_view version);

Sameness sameness(const Options& options, const model::There& known, const model::There& now);
inline bool canBeSame(const Options& options, const model::There& known, const model::There& now) {
  return sameness(options, known, now) != Sameness::different;
}

}  // namespace kestrowan::replica::pull
