#include "mount/HostOptions.h"

#include <unistd.h>

#include <chrono>
#include <set>
#include <stdexcept>
#include <string_view>

namespace kestrowan::test {

namespace {

std::string text(const JSONValue& json, std::string_view name) {
  const auto* const member = json.member(name);
  if (member == nullptr || member->string() == nullptr) {
    throw std::invalid_argument("\"" + std::string(name) + "\" is missing or no text");
  }
  return *member->string();
}

void set(const JSONValue& json, std::string_view name, bool& value) {
  const auto* const member = json.member(name);
  if (member != nullptr && member->boolean() != nullptr) value = *member->boolean();
}

void set(const JSONValue& json, std::string_view name, std::int64_t& value) {
  const auto* const member = json.member(name);
  if (member != nullptr && member->integer() != nullptr) value = *member->integer();
}

void set(const JSONValue& json, std::string_view name, std::chrono::milliseconds& value) {
  std::int64_t count = value.count();
  set(json, name, count);
  value = std::chrono::milliseconds(count);
}

}  // namespace

HostOptions::HostOptions(const JSONValue& json) : state(text(json, "state")) {
  set(json, "refuseMovesBetweenFolders", replica.refuseMovesBetweenFolders);
  set(json, "localOnlyNames", replica.localOnlyNames);
  set(json, "closeWaits", replica.closeWaits);
  set(json, "fsyncWaits", replica.fsyncWaits);
  set(json, "sendDelay", replica.sendDelay);
  set(json, "verdictWait", replica.verdictWait);
  set(json, "freshTime", replica.freshTime);
  set(json, "usableTime", replica.usableTime);
  set(json, "listingWait", replica.listingWait);

  mount.mountPoint = text(json, "mountPoint");
  mount.stateDirectory = state;
  mount.user = ::getuid();
  mount.group = ::getgid();
  set(json, "noexec", mount.noexec);
  set(json, "cacheTime", mount.cacheTime);

  set(json, "opaqueIdentifiers", provider.opaqueIdentifiers);
  if (provider.opaqueIdentifiers) {
    replica.identifiers = replica::remote::IdentifierForm::opaque("node:");
  }
  if (const auto* const paths = json.member("readOnly"); paths != nullptr && paths->array()) {
    std::set<std::string, std::less<>> readOnly;
    for (const auto& path : *paths->array()) {
      if (path.string() != nullptr) readOnly.insert(*path.string());
    }
    provider.isProtected = [readOnly = std::move(readOnly)](std::string_view path) {
      return readOnly.contains(path);
    };
  }
}

}  // namespace kestrowan::test
