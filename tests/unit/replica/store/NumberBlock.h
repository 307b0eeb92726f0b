#pragma once

#include "replica/Records.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica {

/// The numbers that the replica gives next: many are noted as given at once, so that giving one
/// writes nothing. What a dead process had noted and not given is never given.
class NumberBlock {
 public:
  /// Begins behind the last number that is noted as given, and reserves. Its database must outlive
  /// it.
  explicit NumberBlock(Database& database);

  bool isEmpty() const { return next_ == end_; }
  /// Whether it is time to reserve, while there are still enough for the largest transaction.
  bool isRunningLow() const;
  /// Only when there is one.
  Number take() { return next_++; }

  /// Notes more numbers as given; part of the transaction that is open.
  void reserve();
  /// What was reserved last is not noted after all.
  void forgetReservation() { end_ = next_; }
  /// Whether a number has been given, or counts as given since somebody bears it.
  bool isGiven(Number number) const { return number < next_; }
  /// Never gives numbers up to that one; it must be followed by `reserve`.
  void skip(Number last) { next_ = end_ = last + 1; }
  /// Notes the numbers that are left as not given.
  void giveBack();

 private:
  void note(Number next);

  Statement update_;
  Number next_;
  Number end_;
};

}  // namespace kestrowan::replica
