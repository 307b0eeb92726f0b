#include "host/DomainChoice.h"

#include <algorithm>
#include <cerrno>

#include "bridge/FPBridge.h"
#include "host/Directories.h"
#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "platform/foundation/NSError.h"
#include "platform/linux/ContainerPath.h"

namespace kestrowan::host {

namespace {

constexpr std::size_t kLongestPart = 40;  // bytes of the path in a domain's name
constexpr std::size_t kDigits = 8;

StorageNote noteOf(const std::string& domain) {
  return storageNote(standardStateDirectory(domain));
}

/// Whether there is a state that is, or may be, the container's.
bool isFor(const StorageNote& note, const std::string& container) {
  return note.kind == StorageNote::Kind::unknown ||
         (note.kind == StorageNote::Kind::known && note.container == container);
}

}  // namespace

std::string withoutLinks(const std::string& path) {
  const auto resolved = resolvedAsFar(path);
  return resolved.empty() ? "/" : resolved;
}

std::string chosenContainer() {
  const auto path = containerPath(FPBridge::kGroupIdentifier);
  if (path.empty()) {
    throw describedError(ENOENT,
                         "neither --container, $KESTROWAN_CONTAINER, $XDG_DATA_HOME nor $HOME says "
                         "where the container directory is");
  }
  return withoutLinks(path);
}

bool isStandardContainer(const std::string& container) {
  const auto path = standardContainerPath(FPBridge::kGroupIdentifier);
  return !path.empty() && withoutLinks(path) == container;
}

std::string ownDomain(const std::string& container) {
  if (isStandardContainer(container)) return std::string(kStandardDomain);
  auto part = container.substr(container.rfind('/') + 1).substr(0, kLongestPart);
  for (char& c : part) {
    if (!isDomainName(std::string("x") + c)) c = '-';
  }
  // A name that begins with "-" looks like an option, and one that begins with "." is none.
  part.erase(0, std::min(part.find_first_not_of("-."), part.size()));
  return (part.empty() ? "storage" : part) + "-" + shortName(container).substr(0, kDigits);
}

std::string domainOf(const std::string& container) {
  const auto own = ownDomain(container);
  if (isFor(noteOf(own), container)) return own;
  std::vector<std::string> moved;
  for (const auto& [name, note] : domainsWithState()) {
    if (note.moved && note.container == container) moved.push_back(name);
  }
  if (moved.empty()) return own;
  if (moved.size() == 1) return moved.front();
  std::string names;
  for (const auto& name : moved) names += (names.empty() ? "" : ", ") + name;
  throw describedError(EINVAL, "several domains were moved to this container (" + names +
                                   "); name one of them with --domain");
}

std::vector<std::pair<std::string, StorageNote>> domainsWithState() {
  std::vector<std::pair<std::string, StorageNote>> found;
  for (const auto& name : namesIn(stateHome())) {
    if (!isDomainName(name)) continue;
    try {
      auto note = noteOf(name);
      if (note.kind != StorageNote::Kind::unused) found.emplace_back(name, std::move(note));
    } catch (const NSError&) {
      // What cannot be looked into is no domain of this user's.
    }
  }
  std::sort(found.begin(), found.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  return found;
}

std::string freeDomain(const std::string& container) {
  const auto own = ownDomain(container);
  auto name = own;
  for (unsigned number = 2;; ++number) {
    const auto note = noteOf(name);
    if (note.kind == StorageNote::Kind::unused ||
        (note.kind == StorageNote::Kind::known && note.container == container)) {
      return name;
    }
    name = own + "-" + std::to_string(number);
  }
}

}  // namespace kestrowan::host
