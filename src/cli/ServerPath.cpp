#include "cli/ServerPath.h"

#include "platform/foundation/NSString.h"

namespace kestrowan::cli {

std::string serverPath(std::string_view argument) {
  if (argument.find('\0') != std::string_view::npos) throw UsageError("a path holds a NUL");
  std::string path;
  while (!argument.empty()) {
    const auto end = argument.find('/');
    const auto component = argument.substr(0, end);
    argument.remove_prefix(end == std::string_view::npos ? argument.size() : end + 1);
    if (component.empty()) continue;
    if (component == "." || component == "..") {
      throw UsageError("a server path may not hold \".\" or \"..\"; write it out from \"/\"");
    }
    path.append("/").append(component);
  }
  return path.empty() ? "/" : path;
}

NSFileProviderItemIdentifier identifier(const std::string& path) {
  return path == "/" ? NSFileProviderItemIdentifier(NSFileProviderRootContainerItemIdentifier)
                     : path;
}

NSFileProviderItemIdentifier parentIdentifier(const std::string& path) {
  return identifier(stringByDeletingLastPathComponent(path));
}

}  // namespace kestrowan::cli
