#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/JSONValue.h"
#include "platform/network/TransferMonitor.h"
#include "replica/Status.h"

namespace kestrowan::host {

/// What the answer to "status" says of a replica: {offline, unanswered, silent, held, heldReason,
/// items, fetching, refusedPrograms {count, last}, watchedFolders, refusedEntries, partialListings,
/// partialFolders, pending {count, bytes, items}, conflicts [{path, theirs?}], cache {files,
/// bytes}, history {files, bytes, unconfirmed {files, bytes}, limit, full}}. Of the pending items
/// at most `limit`, the failing ones first. Dates are seconds since 1970-01-01 UTC, sizes bytes;
/// `silent` is seconds.
JSONValue::Object statusForm(const replica::Status& status, std::size_t limit);

/// {path, kind, state, changes, size, downloaded, pinned, failure}; the failure null or {class,
/// domain, code, text, since, next, tries, status, reason}: the status that the server answered, or
/// null, and one of `reasonWords`.
JSONValue::Object itemForm(const replica::ItemStatus& item);

/// {method, path, sent, expectedToSend, received, expectedToReceive} of each transfer that carries
/// contents. Of a URL only the path is kept.
JSONValue::Array transferForms(const std::vector<TransferStatus>& transfers);

/// The path of `url`, its escapes decoded where they can be.
std::string urlPath(std::string_view url);

}  // namespace kestrowan::host
