#include "cli/Console.h"
#include "cli/Explain.h"
#include "cli/Failure.h"
#include "cli/JSONForms.h"
#include "cli/ServerPath.h"
#include "cli/commands/Commands.h"
#include "extension/FileProviderExtension.h"

namespace kestrowan::cli {

CommandContext::CommandContext(const GlobalOptions& options,
                               std::optional<std::chrono::seconds> limit)
    : json_(options.json),
      patience_(limit),
      extension_(
          std::make_shared<FileProviderExtension>(NSFileProviderDomain{"kestrowan", "Kestrowan"})) {
}

ExitCode CommandContext::fail(const RequestFailure& failure) const {
  const auto& known = failure.circumstance;
  const auto explanation =
      explain(failure.path, failure.error, known ? std::optional(known->text) : std::nullopt);
  if (json_) {
    const auto reason = known ? known->reason : reasonOf(failure.error);
    Output::standard().write(
        JSONValue(JSONValue::Object{{"path", failure.path},
                                    {"error", failureForm(failure.error, reason)}})
            .serialized() +
        "\n");
  } else {
    Output::standard().flush();
    complain(explanation.text);
  }
  return explanation.exitCode;
}

ExitCode CommandContext::reportingFailure(const std::function<void()>& action) const {
  try {
    action();
    return ExitCode::done;
  } catch (const RequestFailure& failure) {
    return fail(failure);
  } catch (const UsageError& problem) {
    reportFailure(json_, problem.what(), commandError(ExitCode::usage, problem.what()));
    return ExitCode::usage;
  }
}

}  // namespace kestrowan::cli
