#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrowan::replica::remote {

/// What a server answered to one request; never what it or its answer contained. A plain value.
struct Answer {
  /// The request's kind, for a person: "PUT".
  std::string request;
  /// Whether the request was to change something.
  bool isChange = false;
  std::int64_t httpStatus = 0;
};

/// The answers to the requests that one call of the provider consisted of. A seam: how they come to
/// be known is not the replica's. Shared by pointer; usable from every thread.
class CallAnswers {
 public:
  virtual ~CallAnswers() = default;

  /// The answer to the last of them that has ended; nothing when it had none, or is not known.
  virtual std::optional<Answer> last() const = 0;
};

/// To be called where a call is begun, with its `Abandonment` as the current one. May give null.
using AnswerWatch = std::function<std::shared_ptr<const CallAnswers>()>;

}  // namespace kestrowan::replica::remote
