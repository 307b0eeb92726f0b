#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"

namespace kestrowan::host {

/// The domain of failures that are a command's own; the code is its exit code.
inline constexpr std::string_view kCommandDomain = "kestrowan";

/// A word that tells programs why something failed, and what it stands for.
struct ReasonWord {
  std::string_view reason;
  std::string_view meaning;
};

/// All words, in the order of the document. None is ever renamed.
const std::vector<ReasonWord>& reasonWords();

/// The word for an error; "other" for one without a word of its own. Pure.
std::string_view reasonOf(std::string_view domain, std::int64_t code);
inline std::string_view reasonOf(const NSError& error) {
  return reasonOf(error.domain(), error.code());
}

}  // namespace kestrowan::host
