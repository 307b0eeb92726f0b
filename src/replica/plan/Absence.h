#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "replica/model/Edit.h"

namespace kestrowan::replica::plan {

/// The provider has the item no more, nor what is in it. `isOwn`: by a request of ours, so that
/// what is still here is to be made anew rather than removed here too; the same holds for a file
/// that a request without an answer may have overwritten or removed (see `mayLand`). Of an item
/// that the provider has.
void markAbsent(model::Edit& edit, model::ItemNumber item, bool isOwn);

/// The same in parts, what is in the item first: of `budget` items at most, which is what is left
/// of it then. A file goes only when `mayGo`; where one stays, its folders stay.
enum class Marked : std::uint8_t { all, stays, more };
Marked markAbsent(model::Edit& edit, model::ItemNumber item, bool isOwn, std::size_t& budget,
                  const std::function<bool(const model::Item&)>& mayGo);

/// A request of ours without an answer may have removed what is at the path.
bool isOwnRemoval(const model::State& state, const model::Path& path);

}  // namespace kestrowan::replica::plan
