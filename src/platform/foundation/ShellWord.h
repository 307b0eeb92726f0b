#pragma once

#include <string>
#include <string_view>

namespace kestrowan {

/// `text` (any bytes but NUL) as one word of a shell's command line, quoted whatever it holds. What
/// could steer a terminal, and bytes that are not UTF-8, are spelt out in the form $'…' of bash and
/// zsh, so that the word can be shown as it is.
std::string shellWord(std::string_view text);

}  // namespace kestrowan
