#include "cli/Console.h"
#include "cli/Explain.h"
#include "cli/JSONForms.h"
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

ExitCode CommandContext::fail(std::string_view path, const NSError& error) const {
  const auto explanation = explain(path, error);
  if (json_) {
    Output::standard().write(
        JSONValue(JSONValue::Object{{"path", path}, {"error", jsonForm(error)}}).serialized() +
        "\n");
  } else {
    Output::standard().flush();
    complain(explanation.text);
  }
  return explanation.exitCode;
}

}  // namespace kestrowan::cli
