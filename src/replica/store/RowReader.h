#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

#include "replica/model/OptionalTime.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica::store {

/// The highest number that is taken for one: no replica gives as many.
inline constexpr std::int64_t kHighestNumber = std::int64_t{1} << 62;

/// Reads values out of a row, one column after the other. A value of the wrong kind or out of its
/// range makes the row one without sense.
class RowReader {
 public:
  explicit RowReader(const Statement& row) : row_(row) {}

  bool isSensible() const { return isSensible_; }
  void refuse() { isSensible_ = false; }
  bool isNothing() const { return row_.isNothing(next_); }
  void skip(int columns = 1) { next_ += columns; }

  std::int64_t number(std::int64_t least, std::int64_t greatest);
  /// `usual` for nothing.
  std::int64_t numberOr(std::int64_t usual, std::int64_t least, std::int64_t greatest);
  std::string_view bytes();
  std::string_view bytesOr(std::string_view usual);
  template <class Number>
  Number named() {
    return static_cast<Number>(number(0, kHighestNumber));
  }
  template <class Number>
  Number namedOr(Number usual) {
    return static_cast<Number>(numberOr(static_cast<std::int64_t>(usual), 0, kHighestNumber));
  }
  bool flagOr(bool usual) { return numberOr(usual ? 1 : 0, 0, 1) == 1; }
  /// In the unit of the time's own clock.
  template <class TimePoint>
  TimePoint time(std::int64_t least, std::int64_t greatest) {
    return TimePoint(typename TimePoint::duration(number(least, greatest)));
  }
  template <class TimePoint>
  model::OptionalTime<TimePoint> optionalTime(std::int64_t least, std::int64_t greatest) {
    if (!isNothing()) return time<TimePoint>(least, greatest);
    skip();
    return std::nullopt;
  }

 private:
  const Statement& row_;
  int next_ = 0;
  bool isSensible_ = true;
};

}  // namespace kestrowan::replica::store
