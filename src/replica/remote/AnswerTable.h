#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"
#include "replica/remote/CallAnswers.h"

namespace kestrowan::replica::remote {

/// The domain of errors that are the answer of a server; the code is the answer's HTTP status.
inline constexpr std::string_view kAnswerDomain = "KestrowanHTTPErrorDomain";

/// What a status means that does not say yes.
struct AnswerMeaning {
  std::int64_t httpStatus = 0;
  /// A word for programs, which stays what it is: "forbidden".
  std::string_view reason;
  /// For a person: "the server forbids it".
  std::string_view words;
  /// The `errno` of a program's call whose change is answered so; 0 where that says nothing for
  /// good.
  int number = 0;
  /// The same of a call that only reads.
  int readingNumber = 0;
  /// What was refused so may be taken later without having been changed.
  bool passes = false;
};

/// The one table of what a server's answers mean. Pure functions.
class AnswerTable {
 public:
  /// By status.
  static const std::vector<AnswerMeaning>& rows();
  /// Of any status: that of its row, else that of its hundred. `httpStatus` is that of the row.
  static AnswerMeaning meaning(std::int64_t httpStatus);

  /// An error of `kAnswerDomain` that says in words what the server answered.
  static NSError error(const Answer& answer);
  /// Whether an error is the answer to a change, and says no for good.
  static bool isDenial(const NSError& error);
  /// The same answer, as one that says nothing for good.
  static NSError undecided(const NSError& error);
  /// The `errno` of a program's call that ends with such an error: EIO where the table has none.
  static int number(const NSError& error);
  /// The status of the answer that an error is.
  static std::optional<std::int64_t> httpStatus(const NSError& error);
};

}  // namespace kestrowan::replica::remote
