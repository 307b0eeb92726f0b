#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "replica/model/OptionalTime.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica::store {

/// Writes values into a statement, one parameter after the other. Bytes must stay until the
/// statement has run.
class RowWriter {
 public:
  explicit RowWriter(Statement& statement) : statement_(statement) {}

  void put(std::int64_t number) { statement_.bind(next_++, number); }
  void put(std::string_view bytes) { statement_.bind(next_++, bytes); }
  void putNothing(int columns = 1) {
    while (columns-- > 0) statement_.bindNothing(next_++);
  }
  template <class Number>
  requires std::is_enum_v<Number>
  void put(Number number) { put(static_cast<std::int64_t>(number)); }
  /// Nothing for what is the default.
  template <class Number>
  void putUnless(Number usual, Number number) {
    if (number == usual) return putNothing();
    put(static_cast<std::int64_t>(number));
  }
  void putUnlessEmpty(std::string_view bytes) {
    if (bytes.empty()) return putNothing();
    put(bytes);
  }
  template <class TimePoint>
  void putTime(const model::OptionalTime<TimePoint>& time) {
    if (!time) return putNothing();
    put(std::int64_t{time->time_since_epoch().count()});
  }

 private:
  Statement& statement_;
  int next_ = 1;
};

}  // namespace kestrowan::replica::store
