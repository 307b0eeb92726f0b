#include "host/CommandAdvice.h"

#include <algorithm>
#include <cstdlib>

#include "bridge/FPBridge.h"
#include "host/Directories.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/ShellWord.h"
#include "platform/linux/ContainerPath.h"

namespace kestrowan::host {

namespace {

/// An entry of the registry is a file like any other: its words are quoted unless they are plain.
std::string word(const std::string& text) {
  const auto isPlain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '=';
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), isPlain) ? text : shellWord(text);
}

bool isStandardState(const HostEntry& host) {
  try {
    return host.stateDirectory == standardStateDirectory(host.domain);
  } catch (const NSError&) {
    return false;
  }
}

}  // namespace

std::string mountCommand(const HostEntry& host) {
  std::string command = "kestrowan";
  if (!host.container.empty()) command += " --container " + shellWord(host.container);
  command += " mount --domain" + std::string(host.domain.starts_with('-') ? "=" : " ");
  command += word(host.domain);
  if (!isStandardState(host)) command += " --state " + shellWord(host.stateDirectory);
  for (const auto& option : host.options) command += " " + word(option);
  // Nothing that begins with "-" follows: the mount point is absolute.
  return command + " " + shellWord(host.mountPoint);
}

std::string unmountCommand(const HostEntry& host) {
  return "kestrowan unmount " + shellWord(host.mountPoint);
}

std::string statusCommand(const HostEntry& host) {
  return "kestrowan status " + shellWord(host.mountPoint);
}

std::string doctorCommand() {
  const char* named = std::getenv("KESTROWAN_CONTAINER");
  if (named == nullptr || *named == '\0') return "kestrowan doctor";
  return "kestrowan --container " + shellWord(containerPath(FPBridge::kGroupIdentifier)) +
         " doctor";
}

}  // namespace kestrowan::host
