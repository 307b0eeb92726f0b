#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cli/commands/Commands.h"

namespace kestrowan::cli {

/// What a request that failed was to do with an item.
enum class Attempt {
  list,        // what is in it
  read,        // its properties
  fetch,       // its contents
  makeFile,    // the file, perhaps in place of one that is there
  makeFolder,  // the folder
  moveTo,      // another item to its place
  remove,      // the item
};

/// What a look at the server shows of a request about `path` that the server said no to; nothing
/// when the look shows nothing that explains it, or there was no such answer. Asks the server at
/// most twice, and only after its answer.
std::optional<Circumstance> circumstanceOf(CommandContext& context, Attempt attempt,
                                           const std::string& path, const NSError& error);

}  // namespace kestrowan::cli
