#include <utility>

#include "cli/Circumstance.h"
#include "cli/Console.h"
#include "cli/Explain.h"
#include "cli/JSONForms.h"
#include "cli/ProgressLine.h"
#include "cli/Requests.h"
#include "cli/ServerPath.h"
#include "cli/commands/Commands.h"
#include "platform/fileprovider/TemplateItem.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::cli {

ExitCode put(CommandContext& context, const std::string& file, const std::string& path) {
  std::string at = serverPath(path);
  if (path.ends_with('/')) at = (at == "/" ? "" : at) + "/" + lastPathComponent(file);
  if (at == "/") throw UsageError("name the file on the server, or end the path in \"/\"");
  auto created = std::make_shared<const TemplateItem>(
      TemplateItem::Values{.itemIdentifier = at,
                           .parentItemIdentifier = parentIdentifier(at),
                           .filename = lastPathComponent(at),
                           .contentType = std::nullopt});
  NSFileProviderItemPtr item;
  try {
    const TransferProgress progress(!context.json(), "PUT", lastPathComponent(at));
    item = context.patience().awaitTransfer(
        create(context.extension(), created, NSURL::fileURLWithPath(file)));
  } catch (const NSError& error) {
    if (isAboutLocalFile(error)) throw RequestFailure{file, error};
    throw RequestFailure{at, error, circumstanceOf(context, Attempt::makeFile, at, error)};
  }
  if (context.json()) {
    Output::standard().write(JSONValue(JSONValue::Object{{"item", jsonForm(item)}}).serialized() +
                             "\n");
  }
  return ExitCode::done;
}

}  // namespace kestrowan::cli
