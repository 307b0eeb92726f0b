#pragma once

#include <string_view>

#include "platform/foundation/NSData.h"

namespace kestrowan::host {

/// What the content versions of our extension mean: an entity tag without its quotation marks, the
/// date in whole seconds since 1970-01-01 UTC or 0, and the size, with "|" between them. Pure
/// functions.

/// Whether a version may have been made without a word of the server about the item's state: it has
/// a word of the extension's in the place of the tag, no date, and no size but that of a download.
bool saysNothing(const NSData& version);

/// The version without the strength of its entity tag, which a server may raise without a change.
NSData lastingPart(const NSData& version);

/// Whether a version has the entity tag of an answer, as the server wrote it, whatever its
/// strength.
bool hasTag(const NSData& version, std::string_view tag);

}  // namespace kestrowan::host
