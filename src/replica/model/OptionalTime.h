#pragma once

#include <optional>

namespace kestrowan::replica::model {

/// A point in time, or none, in the room of the time alone: the least one that can be represented
/// stands for none.
template <class TimePoint>
class OptionalTime {
 public:
  constexpr OptionalTime() = default;
  constexpr OptionalTime(std::nullopt_t) {}
  constexpr OptionalTime(TimePoint time) : time_(time) {}
  constexpr OptionalTime(const std::optional<TimePoint>& time) : time_(time.value_or(kNone)) {}

  constexpr explicit operator bool() const { return time_ != kNone; }
  constexpr bool has_value() const { return time_ != kNone; }
  constexpr const TimePoint& operator*() const { return time_; }
  constexpr const TimePoint* operator->() const { return &time_; }
  constexpr TimePoint value_or(TimePoint other) const { return has_value() ? time_ : other; }
  constexpr operator std::optional<TimePoint>() const {
    return has_value() ? std::optional(time_) : std::nullopt;
  }
  constexpr void reset() { time_ = kNone; }

  friend constexpr bool operator==(const OptionalTime&, const OptionalTime&) = default;

 private:
  static constexpr TimePoint kNone = TimePoint::min();

  TimePoint time_ = kNone;
};

}  // namespace kestrowan::replica::model
