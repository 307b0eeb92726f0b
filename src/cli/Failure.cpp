#include "cli/Failure.h"

#include <cstdint>

#include "cli/Console.h"
#include "cli/JSONForms.h"

namespace kestrowan::cli {

void reportFailure(bool json, const std::string& text, const NSError& error) {
  if (json) {
    Output::standard().write(
        JSONValue(JSONValue::Object{{"error", failureForm(error)}}).serialized() + "\n");
  } else {
    complain(text);
  }
}

NSError commandError(ExitCode code, const std::string& text) {
  return NSError("kestrowan", static_cast<std::int64_t>(code),
                 {{std::string(NSLocalizedDescriptionKey), text}});
}

}  // namespace kestrowan::cli
