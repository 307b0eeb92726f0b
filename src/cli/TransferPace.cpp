#include "cli/TransferPace.h"

namespace kestrowan::cli {

bool TransferPace::note(std::int64_t bytesMoved, Clock::time_point now) {
  if (bytesMoved - bytesMoved_ < kLeastBytes) return now - since_ >= kWithin;
  bytesMoved_ = bytesMoved;
  since_ = now;
  return false;
}

}  // namespace kestrowan::cli
