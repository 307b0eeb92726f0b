#include "platform/linux/ContainerPath.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace kestrowan {

namespace {

/// The value of an environment variable; empty when unset.
std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

}  // namespace

std::string containerPath(std::string_view group) {
  const auto own = environmentValue("KESTROWAN_CONTAINER");
  return own.empty() ? standardContainerPath(group) : absolutePath(own);
}

std::string standardContainerPath(std::string_view group) {
  auto base = environmentValue("XDG_DATA_HOME");
  // The base directory rules of the desktop say that a relative one is to be ignored.
  if (!base.starts_with('/')) {
    const auto home = environmentValue("HOME");
    if (home.empty()) return {};
    base = home + "/.local/share";
  }
  return base + "/" + std::string(group);
}

}  // namespace kestrowan
