#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/base/Fatal.h"

/// What a fuzz target defines: one run over one input. It returns 0, or ends the process when the
/// input breaks a promise.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kestrowan::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Ends the process when `holds` is false.
inline void require(bool holds, std::string_view promise) {
  if (!holds) fatalError(promise);
}

}  // namespace kestrowan::fuzz
