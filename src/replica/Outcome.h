#pragma once

#include <functional>
#include <optional>
#include <utility>
#include <variant>

#include "platform/foundation/NSError.h"

namespace kestrowan::replica {

/// What a call came to: its value, or the error instead.
template <typename T>
class Outcome {
 public:
  Outcome(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  Outcome(NSError error) : content_(std::in_place_index<1>, std::move(error)) {}

  bool succeeded() const { return content_.index() == 0; }
  /// Only of an outcome that succeeded.
  T& value() { return std::get<0>(content_); }
  const T& value() const { return std::get<0>(content_); }
  /// Only of one that did not.
  const NSError& error() const { return std::get<1>(content_); }

 private:
  std::variant<T, NSError> content_;
};

/// The outcome of a call that gives nothing but success.
struct Done {};

/// Called exactly once, with no lock held: before the call that took it returns, or later from
/// another thread. Must not block.
template <typename T>
using Completion = std::function<void(Outcome<T>)>;

}  // namespace kestrowan::replica
