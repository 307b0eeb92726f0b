#pragma once

#include <cstdint>

#include "platform/foundation/NSData.h"
#include "replica/Options.h"
#include "replica/Records.h"

namespace kestrowan::replica {

/// Decides from what a provider says of an item at two times whether it has the same contents. All
/// else that compares versions asks here. Pure functions.

/// How the provider came to speak of an item.
enum class Source : std::uint8_t {
  look,    // a listing, or a question about the item: every version is the item's own
  answer,  // to a change or a fetch: the version may be a word of the provider's for none
};

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

Sameness sameness(const Options& options, const Base& known, const Base& now);
inline bool canBeSame(const Options& options, const Base& known, const Base& now) {
  return sameness(options, known, now) != Sameness::different;
}

/// Whether a file can be the other one under a new name. Not every server keeps the version through
/// a move.
bool canBeMoved(const Options& options, const Base& before, const Base& after);

}  // namespace kestrowan::replica
