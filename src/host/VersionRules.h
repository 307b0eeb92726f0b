#pragma once

#include "platform/foundation/NSData.h"

namespace kestrowan::host {

/// What the content versions of our extension mean: an entity tag, a date and a size, with "|"
/// between them. Pure functions.

/// Whether a version was made without a word of the server about the item's state.
bool saysNothing(const NSData& version);

/// Whether two versions stand for the same contents: equal but for the strength of the entity tag,
/// which a server may raise without a change.
bool sameContents(const NSData& known, const NSData& listed);

}  // namespace kestrowan::host
