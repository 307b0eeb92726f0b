#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/Circumstance.h"
#include "cli/Console.h"
#include "cli/ItemText.h"
#include "cli/JSONForms.h"
#include "cli/Operands.h"
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

NSFileProviderItemPtr makeFolder(CommandContext& context, const std::string& at) {
  auto folder = std::make_shared<const TemplateItem>(
      TemplateItem::Values{.itemIdentifier = at,
                           .parentItemIdentifier = parentIdentifier(at),
                           .filename = lastPathComponent(at),
                           .contentType = UTType::folder()});
  return resultOf(context, create(context.extension(), folder, std::nullopt), Attempt::makeFolder,
                  at);
}

/// Makes the folder and those above it that are missing; gives the one that is there as well.
NSFileProviderItemPtr makeWithParents(CommandContext& context, const std::string& at) {
  std::optional<RequestFailure> failure;
  try {
    return makeFolder(context, at);
  } catch (const RequestFailure& refused) {
    failure = refused;
  }
  const auto reason = failure->circumstance ? failure->circumstance->reason : "";
  if (reason == "no-folder") {
    makeWithParents(context, stringByDeletingLastPathComponent(at));
    return makeFolder(context, at);
  }
  if (reason == "exists") {
    auto item = itemAt(context, at);
    if (item->contentType() == UTType::folder()) return item;
  }
  throw *failure;
}

void removeOne(CommandContext& context, const std::string& at, bool recursive) {
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
}

bool isMissing(const RequestFailure& failure) {
  return failure.circumstance && failure.circumstance->reason == "missing";
}

/// The paths as the server has them; throws `UsageError` with that text for the root.
std::vector<std::string> serverPaths(const std::vector<std::string>& paths,
                                     const std::string& ofRoot) {
  std::vector<std::string> result;
  for (const auto& path : paths) {
    result.push_back(serverPath(path));
    if (result.back() == "/") throw UsageError(ofRoot);
  }
  return result;
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

ExitCode makeFolders(CommandContext& context, const MakeFolderOptions& options) {
  const auto paths = serverPaths(options.paths, "the root is always there");
  return forEach(paths, [&](const std::string& at) {
    return context.reportingFailure([&] {
      printItem(context,
                options.withParents ? makeWithParents(context, at) : makeFolder(context, at));
    });
  });
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

ExitCode remove(CommandContext& context, const RemoveOptions& options) {
  const auto paths = serverPaths(options.paths, "the root cannot be removed");
  return forEach(paths, [&](const std::string& at) {
    return context.reportingFailure([&] {
      try {
        removeOne(context, at, options.recursive);
      } catch (const RequestFailure& failure) {
        if (!options.isForced || !isMissing(failure)) throw;
      }
    });
  });
}

}  // namespace kestrowan::cli
