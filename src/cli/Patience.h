#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <optional>

#include "cli/AnsweredError.h"
#include "cli/Requests.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

/// How long a command waits for its requests. Lives as long as the command; used by one thread.
///
/// With a limit, that is the end of all requests together. Without one a request that moves no file
/// has 90 seconds, and a transfer may take as long as `TransferPace` allows.
class Patience {
 public:
  explicit Patience(std::optional<std::chrono::seconds> limit);

  /// The result of a request that moves no file. Throws the request's `NSError`, with what the
  /// server answered (see `withAnswer`); when the time is over, gives the request up and throws
  /// `NSURLErrorTimedOut` of `NSURLErrorDomain`, whose text says which limit that was.
  template <typename T>
  T await(Request<T> request) const {
    return await(request, kRequestLimit);
  }
  /// The same for a request that moves a whole file.
  template <typename T>
  T awaitTransfer(Request<T> request) const {
    return await(request, std::nullopt);
  }

 private:
  using Clock = std::chrono::steady_clock;
  /// Waits so long at most for the answer; whether it is there.
  using WaitForAnswer = std::function<bool(Clock::duration)>;

  static constexpr std::chrono::seconds kRequestLimit{90};
  /// What a request that was given up needs at most to clean up.
  static constexpr std::chrono::seconds kFarewell{5};

  template <typename T>
  T await(Request<T>& request, std::optional<std::chrono::seconds> usualLimit) const {
    const WaitForAnswer wait = [&request](Clock::duration time) {
      return request.answer.wait_for(time) == std::future_status::ready;
    };
    const auto late = waitWithin(wait, usualLimit);
    if (!late) return answerOf(request);
    request.caller->declare();
    if (!wait(kFarewell)) throw *late;
    try {
      // The answer may have come just now.
      return request.answer.get();
    } catch (const NSError&) {
      throw *late;
    }
  }

  /// Of a request that has ended.
  template <typename T>
  static T answerOf(Request<T>& request) {
    try {
      return request.answer.get();
    } catch (const NSError& error) {
      throw withAnswer(error, request.caller);
    }
  }

  /// Waits for the answer; what is wrong when it does not come in time.
  std::optional<NSError> waitWithin(const WaitForAnswer& wait,
                                    std::optional<std::chrono::seconds> usualLimit) const;

  const std::optional<std::chrono::seconds> limit_;
  const Clock::time_point start_;
};

}  // namespace kestrowan::cli
