#include <utility>

#include "cli/Circumstance.h"
#include "cli/Console.h"
#include "cli/ItemText.h"
#include "cli/JSONForms.h"
#include "cli/Requests.h"
#include "cli/ServerPath.h"
#include "cli/commands/Commands.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/fileprovider/TemplateItem.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::cli {

namespace {

/// The request's result, its failure marked with the path that it is about.
template <typename T>
T resultOf(CommandContext& context, Request<T> request, Attempt attempt, const std::string& path) {
  try {
    return context.patience().await(std::move(request));
  } catch (const NSError& error) {
    throw RequestFailure{path, error, circumstanceOf(context, attempt, path, error)};
  }
}

NSFileProviderItemPtr itemAt(CommandContext& context, const std::string& path) {
  return resultOf(context, lookUp(context.extension(), identifier(path)), Attempt::read, path);
}

void printItem(CommandContext& context, const NSFileProviderItemPtr& item) {
  if (!context.json()) return;
  Output::standard().write(JSONValue(JSONValue::Object{{"item", jsonForm(item)}}).serialized() +
                           "\n");
}

/// Refuses what the item's capabilities do not allow, as every host does.
void demand(const NSFileProviderItem& item, NSFileProviderItemCapabilities needed,
            const std::string& path) {
  if ((item.capabilities() & needed) != needed) throw RequestFailure{path, posixError(1)};
}

}  // namespace

ExitCode stat(CommandContext& context, const std::string& path, Zone zone) {
  const std::string at = serverPath(path);
  const auto item = itemAt(context, at);
  if (context.json()) {
    printItem(context, item);
  } else {
    Output::standard().write(itemDescription(*item, at, zone));
  }
  return ExitCode::done;
}

ExitCode makeFolder(CommandContext& context, const std::string& path) {
  const std::string at = serverPath(path);
  if (at == "/") throw UsageError("the root is always there");
  auto folder = std::make_shared<const TemplateItem>(
      TemplateItem::Values{.itemIdentifier = at,
                           .parentItemIdentifier = parentIdentifier(at),
                           .filename = lastPathComponent(at),
                           .contentType = UTType::folder()});
  printItem(context, resultOf(context, create(context.extension(), folder, std::nullopt),
                              Attempt::makeFolder, at));
  return ExitCode::done;
}

ExitCode move(CommandContext& context, const std::string& from, const std::string& to) {
  const std::string source = serverPath(from);
  std::string target = serverPath(to);
  if (source == "/") throw UsageError("the root cannot be moved");
  if (to.ends_with('/')) {
    target = (target == "/" ? "" : target) + "/" + lastPathComponent(source);
  }
  if (target == "/") throw UsageError("the root cannot be replaced");
  const auto item = itemAt(context, source);
  demand(*item, NSFileProviderItemCapability::allowsRenaming, source);
  auto moved = std::make_shared<const TemplateItem>(
      TemplateItem::Values{.itemIdentifier = source,
                           .parentItemIdentifier = parentIdentifier(target),
                           .filename = lastPathComponent(target),
                           .contentType = item->contentType()});
  try {
    printItem(context,
              context.patience().await(modify(context.extension(), moved,
                                              NSFileProviderItemField::filename |
                                                  NSFileProviderItemField::parentItemIdentifier)));
  } catch (const NSError& error) {
    auto circumstance = circumstanceOf(context, Attempt::moveTo, target, error);
    const bool isTaken = error.is(NSCocoaErrorDomain, NSFileWriteFileExistsError);
    const auto& path = isTaken || circumstance ? target : source;
    throw RequestFailure{path, error, std::move(circumstance)};
  }
  return ExitCode::done;
}

ExitCode remove(CommandContext& context, const std::string& path, bool recursive) {
  const std::string at = serverPath(path);
  if (at == "/") throw UsageError("the root cannot be removed");
  const auto item = itemAt(context, at);
  demand(*item, NSFileProviderItemCapability::allowsDeleting, at);
  if (item->contentType() == UTType::folder() && !recursive) {
    throw UsageError(escapedForDisplay(at) +
                     ": is a folder; remove it and all that is in it with -r");
  }
  resultOf(context, remove(context.extension(), identifier(at), recursive), Attempt::remove, at);
  if (context.json()) {
    Output::standard().write(JSONValue(JSONValue::Object{{"removed", at}}).serialized() + "\n");
  }
  return ExitCode::done;
}

}  // namespace kestrowan::cli
