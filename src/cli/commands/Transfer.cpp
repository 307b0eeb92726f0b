#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "cli/Console.h"
#include "cli/JSONForms.h"
#include "cli/ProgressLine.h"
#include "cli/Requests.h"
#include "cli/ServerPath.h"
#include "cli/TemplateItem.h"
#include "cli/commands/Commands.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::cli {

namespace {

constexpr std::string_view kStandardOutput = "-";

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

[[noreturn]] void failLocally(const std::string& file, int number) {
  throw OutputUnwritable(file + ": " + std::generic_category().message(number));
}

/// The local file that `get` makes.
std::string localTarget(const std::string& path, const std::optional<std::string>& file) {
  if (file && *file != "." && !isDirectory(*file)) return *file;
  const std::string name = lastPathComponent(path);
  if (name == "/") throw UsageError("name a local file for the contents of the root");
  return (file ? *file : std::string(".")) + "/" + name;
}

/// Makes the folder that holds `file` the temporary directory of this process, so that what is
/// downloaded there can be renamed to `file`: a step that is whole or not at all.
void downloadBeside(const std::string& file) {
  const auto slash = file.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : file.substr(0, slash));
  ::setenv("TMPDIR", folder.c_str(), 1);
}

/// Gives a file of mode 0600 the mode that a newly made file has.
void applyUmask(const std::string& file) {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::chmod(file.c_str(), 0666 & ~mask);
}

void copyToStandardOutput(const std::string& file) {
  const UniqueFd source(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source) failLocally(file, errno);
  std::array<char, 256 * 1024> buffer;
  while (true) {
    const ssize_t length = ::read(source.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) failLocally(file, errno);
    if (length == 0) break;
    Output::standard().write(std::string_view(buffer.data(), static_cast<std::size_t>(length)));
  }
  Output::standard().flush();
}

/// A fetched file, removed at the end unless it has been moved away.
struct FetchedFile {
  std::string path;
  ~FetchedFile() {
    if (!path.empty()) ::unlink(path.c_str());
  }
};

}  // namespace

ExitCode get(CommandContext& context, const std::string& path,
             const std::optional<std::string>& file) {
  const std::string at = serverPath(path);
  const bool toStandardOutput = file == kStandardOutput;
  const std::string target = toStandardOutput ? "" : localTarget(at, file);
  if (!toStandardOutput) downloadBeside(target);
  FetchedContents fetched{NSURL::fileURLWithPath(""), nullptr};
  try {
    const TransferProgress progress(!context.json(), "GET", lastPathComponent(at));
    fetched = fetch(context.extension(), identifier(at)).get();
  } catch (const NSError& error) {
    throw RequestFailure{at, error};
  }
  FetchedFile local{fetched.file.path()};
  if (toStandardOutput) {
    copyToStandardOutput(local.path);
    return ExitCode::done;
  }
  applyUmask(local.path);
  if (::rename(local.path.c_str(), target.c_str()) != 0) failLocally(target, errno);
  local.path.clear();
  if (context.json()) {
    Output::standard().write(
        JSONValue(JSONValue::Object{{"file", target}, {"item", jsonForm(fetched.item)}})
            .serialized() +
        "\n");
  }
  return ExitCode::done;
}

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
    item = create(context.extension(), created, NSURL::fileURLWithPath(file)).get();
  } catch (const NSError& error) {
    throw RequestFailure{at, error};
  }
  if (context.json()) {
    Output::standard().write(JSONValue(JSONValue::Object{{"item", jsonForm(item)}}).serialized() +
                             "\n");
  }
  return ExitCode::done;
}

}  // namespace kestrowan::cli
