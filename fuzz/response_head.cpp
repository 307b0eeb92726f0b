// Heads of answers: every line is taken or refused in good order, and the end that a body has is
// known from what the head says.

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSError.h"
#include "platform/linux/CurlResponseHead.h"

using namespace kestrowan;

namespace {

constexpr long kLeastStatus = 100;

/// Hands over the lines as curl does, each with its end.
void addLines(CurlResponseHead& head, std::string_view text, long status) {
  while (!text.empty() && !head.isComplete()) {
    const auto end = text.find('\n');
    const auto length = end == std::string_view::npos ? text.size() : end + 1;
    head.add(text.substr(0, length), status);
    text.remove_prefix(length);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // The first two bytes are the status.
  const long status = kLeastStatus + (data[0] * 256L + data[1]) % 900;
  CurlResponseHead head;
  fuzz::require(!head.isComplete() && !head.leavesEndOpen(), "nothing is known of no head");
  try {
    addLines(head, fuzz::text(data + 2, size - 2), status);
    fuzz::require(!head.leavesEndOpen() || head.isComplete(), "half a head promises no body");
    fuzz::require(!head.isComplete() || status >= 200 || status == 101,
                  "an interim answer is not the last");
    if (!head.isComplete()) return 0;
    const bool hasBody = status != 204 && status != 304;
    fuzz::require(hasBody || !head.leavesEndOpen(), "no body has no end");
  } catch (const NSError& error) {
    fuzz::require(error.is(NSURLErrorDomain, NSURLErrorCannotParseResponse),
                  "a head that makes no sense has one error");
  }
  return 0;
}
