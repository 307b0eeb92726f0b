#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "cli/Console.h"
#include "cli/Explain.h"
#include "cli/JSONForms.h"
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

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

[[noreturn]] void failLocally(const std::string& file, int number) {
  throw OutputUnwritable(file + ": " + std::generic_category().message(number));
}

/// What `file` stands for when it is a symbolic link, there or not.
std::string linksFollowed(std::filesystem::path file) {
  constexpr int kMostLinks = 40;
  std::error_code error;
  for (int links = 0; links < kMostLinks; ++links) {
    const auto next = std::filesystem::read_symlink(file, error);
    if (error) break;
    file = file.parent_path() / next;
  }
  return file.string();
}

/// The local file that `get` makes, symbolic links followed.
std::string localTarget(const std::string& path, const std::optional<std::string>& file) {
  std::string target = file.value_or(".");
  if (isDirectory(target)) {
    const std::string name = lastPathComponent(path);
    if (name == "/") throw UsageError("name a local file for the contents of the root");
    target += "/" + name;
  }
  return linksFollowed(target);
}

/// Whether something stands at `target` that is no file: a device or a pipe is written to, never
/// replaced.
bool isSpecial(const std::string& target) {
  struct stat status {};
  return ::stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

/// Gives a file of mode 0600 the mode that a newly made file has.
void applyUmask(const std::string& file) {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::chmod(file.c_str(), 0666 & ~mask);
}

void writeAll(int target, const std::string& name, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(target, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) failLocally(name, errno);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// Copies the contents of `file` to the descriptor `target`, which errors call `name`.
void copy(const std::string& file, int target, const std::string& name) {
  const UniqueFd source(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source) failLocally(file, errno);
  std::array<char, 256 * 1024> buffer;
  while (true) {
    const ssize_t length = ::read(source.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) failLocally(file, errno);
    if (length == 0) return;
    writeAll(target, name, std::string_view(buffer.data(), static_cast<std::size_t>(length)));
  }
}

/// Puts a downloaded file where it belongs.
void deliver(const std::string& file, const std::string& target) {
  if (isSpecial(target)) {
    const UniqueFd special(::open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    if (!special) failLocally(target, errno);
    return copy(file, special.get(), target);
  }
  applyUmask(file);
  if (::rename(file.c_str(), target.c_str()) != 0) failLocally(target, errno);
}

/// `local`: where the file goes, for failures that are about that.
FetchedContents fetched(CommandContext& context, const std::string& path,
                        const std::string& local) {
  try {
    const TransferProgress progress(!context.json(), "GET", lastPathComponent(path));
    return fetch(context.extension(), identifier(path)).get();
  } catch (const NSError& error) {
    throw RequestFailure{isAboutLocalFile(error) ? local : path, error};
  }
}

}  // namespace

ExitCode get(CommandContext& context, const std::string& path,
             const std::optional<std::string>& file) {
  const std::string at = serverPath(path);
  if (file == kStandardOutput) {
    const ScratchDirectory scratch("");
    const auto result =
        fetched(context, at, NSFileManager::defaultManager()->temporaryDirectory().path());
    copy(result.file.path(), STDOUT_FILENO, "standard output");
    return ExitCode::done;
  }
  const std::string target = localTarget(at, file);
  // Downloading beside the target makes the last step a rename, which is whole or not at all.
  const auto folder = std::filesystem::path(target).parent_path().string();
  const ScratchDirectory scratch(isSpecial(target) ? "" : folder.empty() ? "." : folder);
  const auto result = fetched(context, at, target);
  deliver(result.file.path(), target);
  if (context.json()) {
    Output::standard().write(
        JSONValue(JSONValue::Object{{"file", target}, {"item", jsonForm(result.item)}})
            .serialized() +
        "\n");
  }
  return ExitCode::done;
}

}  // namespace kestrowan::cli
