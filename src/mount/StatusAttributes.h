#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "replica/Status.h"

namespace kestrowan::mount {

/// Where an item stands between here and the provider, as extended attributes that can only be
/// read. They are not listed, because programs that copy attributes would try to write them:
///
///   user.kestrowan.identifier  the provider's identifier
///   user.kestrowan.version     the provider's version of the contents
///   user.kestrowan.state       "synced", "waiting", "sending", "retrying", "refused", "local-only"
///   user.kestrowan.type        the uniform type identifier
///   user.kestrowan.changes     what is still to be sent
///   user.kestrowan.downloaded  "yes" or "no"
///   user.kestrowan.pinned      "yes" or "no"
///   user.kestrowan.conflict    of a side of a conflict: the path of the other one, or "yes"
///   user.kestrowan.error       why it was not sent, for a person

/// Whether `name` is reserved for them.
bool isStatusAttribute(std::string_view name);

/// The value; nothing when the item has none of that name.
std::optional<std::string> statusAttribute(const replica::ItemStatus& status,
                                           std::string_view name);

}  // namespace kestrowan::mount
