#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "cli/Circumstance.h"
#include "cli/Console.h"
#include "cli/Explain.h"
#include "cli/JSONForms.h"
#include "cli/LocalTarget.h"
#include "cli/ProgressLine.h"
#include "cli/Requests.h"
#include "cli/ScratchDirectory.h"
#include "cli/ServerPath.h"
#include "cli/commands/Commands.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::cli {

namespace {

constexpr std::string_view kStandardOutput = "-";

/// Gives a file of mode 0600 the mode that a newly made file has.
void applyUmask(const UniqueFd& file) {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(file.get(), 0666 & ~mask);
}

void writeAll(int target, const std::string& name, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(target, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throwUnwritable(name, errno);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// Copies the contents of `source` to the descriptor `target`, which errors call `name`.
void copy(const UniqueFd& source, int target, const std::string& name) {
  std::array<char, 256 * 1024> buffer;
  while (true) {
    const ssize_t length = ::read(source.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) throwUnwritable(name, errno);
    if (length == 0) return;
    writeAll(target, name, std::string_view(buffer.data(), static_cast<std::size_t>(length)));
  }
}

/// Puts the file `name` of the scratch directory where it belongs.
void deliver(const ScratchDirectory& scratch, const std::string& name, const LocalTarget& target) {
  const auto file = scratch.open(name);
  if (target.isWrittenInto()) return copy(file, target.open().get(), target.path());
  applyUmask(file);
  target.replaceBy(scratch.descriptor(), name);
}

/// `local`: where the file goes, for failures that are about that.
FetchedContents fetched(CommandContext& context, const std::string& path,
                        const std::string& local) {
  try {
    const TransferProgress progress(!context.json(), "GET", lastPathComponent(path));
    return context.patience().awaitTransfer(fetch(context.extension(), identifier(path)));
  } catch (const NSError& error) {
    if (isAboutLocalFile(error)) throw RequestFailure{local, error};
    throw RequestFailure{path, error, circumstanceOf(context, Attempt::fetch, path, error)};
  }
}

}  // namespace

ExitCode get(CommandContext& context, const std::string& path,
             const std::optional<std::string>& file, bool follow) {
  const std::string at = serverPath(path);
  if (file == kStandardOutput) {
    const ScratchDirectory scratch("");
    const auto result =
        fetched(context, at, NSFileManager::defaultManager()->temporaryDirectory().path());
    copy(scratch.open(lastPathComponent(result.file.path())), STDOUT_FILENO, "standard output");
    return ExitCode::done;
  }
  const auto name = lastPathComponent(at);
  const LocalTarget target(file.value_or("."), name,
                           follow ? LocalTarget::Link::followed : LocalTarget::Link::replaced);
  // Downloading beside the target makes the last step a rename, which is whole or not at all.
  const ScratchDirectory scratch(target.isWrittenInto() ? "" : target.folder());
  const auto result = fetched(context, at, target.path());
  deliver(scratch, lastPathComponent(result.file.path()), target);
  if (context.json()) {
    Output::standard().write(
        JSONValue(JSONValue::Object{{"file", target.path()}, {"item", jsonForm(result.item)}})
            .serialized() +
        "\n");
  }
  return ExitCode::done;
}

}  // namespace kestrowan::cli
