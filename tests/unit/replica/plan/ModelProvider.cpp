#include "unit/replica/plan/ModelProvider.h"

namespace kestrowan::test {

ModelProvider::ModelProvider() {
  tree[Path()] = {};
}

const ModelProvider::Entry* ModelProvider::at(const Path& path) const {
  const auto found = tree.find(path);
  return found == tree.end() ? nullptr : &found->second;
}

Version ModelProvider::versionOf(const Entry& entry) {
  return {entry.version == 0 ? std::string() : std::to_string(entry.version)};
}

std::vector<Path> ModelProvider::inside(const Path& path) const {
  std::vector<Path> result;
  for (const auto& [other, entry] : tree) {
    if (other.isAtOrBelow(path)) result.push_back(other);
  }
  return result;
}

std::optional<replica::plan::Listing> ModelProvider::list(const Path& folder) const {
  const Entry* found = at(folder);
  if (!found || found->kind != Kind::folder) return std::nullopt;
  replica::plan::Listing listing;
  for (const auto& [path, entry] : tree) {
    if (path.isRoot() || path.folder() != folder) continue;
    listing.entries.emplace(path.name(), replica::plan::ListedEntry{entry.kind, versionOf(entry)});
  }
  return listing;
}

bool ModelProvider::request(Verb verb, const std::optional<Path>& source,
                            const std::optional<Path>& target, Content content) {
  if (verb == Verb::remove) {
    for (const Path& path : inside(*source)) tree.erase(path);
    return true;
  }
  const Entry* folder = at(target->folder());
  if (!folder || folder->kind != Kind::folder) return false;
  const Entry* present = at(*target);
  if (verb == Verb::put) {
    if (present && present->kind != Kind::file) return false;
    tree[*target] = {Kind::file, ++lastVersion, content};
    return true;
  }
  if (present) return false;
  if (verb == Verb::makeFolder) {
    tree[*target] = {};
    return true;
  }
  if (!at(*source) || target->isAtOrBelow(*source)) return false;
  for (const Path& path : inside(*source)) {
    auto node = tree.extract(path);
    node.key() = path.moved(*source, *target);
    tree.insert(std::move(node));
  }
  return true;
}

}  // namespace kestrowan::test
