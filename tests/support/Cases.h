#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/JSONValue.h"

namespace kestrowan::test {

/// One case of a file in tests/data: an input and the answer to it.
struct Case {
  std::string id;
  /// The operation that the case is for.
  std::string op;
  /// "certain", "likely" or "unknown".
  std::string certainty;
  /// The member "input"; null when the input is given as bytes.
  JSONValue input;
  /// The input as bytes, whichever way it is given: as text, in hexadecimal digits or by a recipe.
  std::string bytes;
  /// The member "expected" or, as hexadecimal digits, "expected_hex".
  JSONValue expected;
  /// Further right answers.
  std::vector<JSONValue> acceptable;
  /// The whole case.
  JSONValue members;

  bool accepts(const JSONValue& answer) const;
};

/// The cases for `op` in tests/data/FILE.json. Fails the test when there are none.
std::vector<Case> casesOf(std::string_view file, std::string_view op);

/// Identifiers of cases that are answered in another way, each with the reason.
using KnownDifferences = std::map<std::string, std::string, std::less<>>;

/// Checks `answer` against every case for `op` in tests/data/FILE.json. A known difference must be
/// none of a certain case, and must really differ.
void checkCases(std::string_view file, std::string_view op,
                const std::function<JSONValue(const Case&)>& answer,
                const KnownDifferences& differences = {});

/// Whether two values are the same, in whatever order their members come and however their numbers
/// are written.
bool isSameJSON(const JSONValue& a, const JSONValue& b);

/// Bytes as lower-case hexadecimal digits, and back.
std::string hexFromBytes(std::string_view bytes);
std::string bytesFromHex(std::string_view hex);

}  // namespace kestrowan::test
