#include "support/MemoryServer.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace kestrowan::test {

namespace {

std::int64_t systemSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string_view withoutSlashes(std::string_view path) {
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  return path;
}

void require(MemoryServer::Answer answer, const char* what, std::string_view path) {
  if (answer == MemoryServer::Answer::done) return;
  throw std::invalid_argument(std::string(what) + " " + std::string(path) + " on the server");
}

}  // namespace

struct MemoryServer::Node {
  std::uint64_t number = 0;
  Node* parent = nullptr;
  std::string name;
  bool isFolder = false;
  std::string bytes;
  std::uint64_t revision = 0;
  std::int64_t date = 0;
  std::map<std::string, std::unique_ptr<Node>, std::less<>> children;
};

MemoryServer::MemoryServer(std::function<std::int64_t()> clock)
    : clock_(clock ? std::move(clock) : systemSeconds), root_(std::make_unique<Node>()) {
  root_->isFolder = true;
  root_->number = ++lastNumber_;
  nodes_[root_->number] = root_.get();
  touch(*root_);
}

MemoryServer::~MemoryServer() = default;

MemoryServer::Node* MemoryServer::find(std::string_view path) const {
  Node* node = root_.get();
  path = withoutSlashes(path);
  while (!path.empty()) {
    path.remove_prefix(1);
    const auto end = path.find('/');
    const auto child = node->children.find(formed(path.substr(0, end)));
    if (child == node->children.end()) return nullptr;
    node = child->second.get();
    path.remove_prefix(end == std::string_view::npos ? path.size() : end);
  }
  return node;
}

std::string MemoryServer::formed(std::string_view name) const {
  return form_ ? form_(name) : std::string(name);
}

void MemoryServer::setForm(std::function<std::string(std::string_view)> form) {
  std::lock_guard lock(mutex_);
  form_ = std::move(form);
}

MemoryServer::Node* MemoryServer::parentOf(std::string_view path, std::string& name) const {
  path = withoutSlashes(path);
  const auto slash = path.rfind('/');
  if (slash == std::string_view::npos) return nullptr;
  name = formed(path.substr(slash + 1));
  Node* parent = find(path.substr(0, slash));
  return parent && parent->isFolder ? parent : nullptr;
}

std::string MemoryServer::pathOf(const Node& node) const {
  if (!node.parent) return "/";
  return (node.parent->parent ? pathOf(*node.parent) : std::string()) + "/" + node.name;
}

ServerEntry MemoryServer::entryOf(const Node& node) const {
  return {.path = pathOf(node),
          .name = node.name,
          .number = node.number,
          .parent = node.parent ? node.parent->number : node.number,
          .isFolder = node.isFolder,
          .size = static_cast<std::int64_t>(node.bytes.size()),
          .revision = node.revision,
          .date = node.date};
}

MemoryServer::Node& MemoryServer::addChild(Node& folder, const std::string& name, bool isFolder) {
  auto node = std::make_unique<Node>();
  node->number = ++lastNumber_;
  node->parent = &folder;
  node->name = name;
  node->isFolder = isFolder;
  nodes_[node->number] = node.get();
  touch(*node);
  touch(folder);
  return *(folder.children[name] = std::move(node));
}

void MemoryServer::touch(Node& node) {
  node.revision = ++lastRevision_;
  node.date = clock_();
}

void MemoryServer::forget(const Node& node) {
  nodes_.erase(node.number);
  for (const auto& [name, child] : node.children) forget(*child);
}

MemoryServer::Answer MemoryServer::put(std::string_view path, std::string_view bytes) {
  std::lock_guard lock(mutex_);
  std::string name;
  Node* const folder = parentOf(path, name);
  if (!folder) return Answer::conflict;
  Node* node = find(path);
  if (node && node->isFolder) return Answer::notAllowed;
  if (!node) node = &addChild(*folder, name, false);
  node->bytes = bytes;
  held_.emplace_back(bytes);
  touch(*node);
  return Answer::done;
}

MemoryServer::Answer MemoryServer::makeCollection(std::string_view path) {
  std::lock_guard lock(mutex_);
  std::string name;
  if (find(path)) return Answer::notAllowed;
  Node* const folder = parentOf(path, name);
  if (!folder) return Answer::conflict;
  addChild(*folder, name, true);
  return Answer::done;
}

MemoryServer::Answer MemoryServer::move(std::string_view from, std::string_view to) {
  std::lock_guard lock(mutex_);
  Node* const node = find(from);
  if (!node) return Answer::notFound;
  if (!node->parent) return Answer::notAllowed;
  if (find(to)) return Answer::exists;
  std::string name;
  Node* const folder = parentOf(to, name);
  if (!folder) return Answer::conflict;
  for (const Node* above = folder; above; above = above->parent) {
    if (above == node) return Answer::conflict;
  }
  auto taken = node->parent->children.extract(node->name);
  touch(*node->parent);
  node->parent = folder;
  node->name = name;
  folder->children[name] = std::move(taken.mapped());
  touch(*folder);
  return Answer::done;
}

MemoryServer::Answer MemoryServer::delete_(std::string_view path) {
  std::lock_guard lock(mutex_);
  Node* const node = find(path);
  if (!node) return Answer::notFound;
  if (!node->parent) {
    for (const auto& [name, child] : node->children) forget(*child);
    node->children.clear();
    touch(*node);
    return Answer::done;
  }
  forget(*node);
  Node& folder = *node->parent;
  folder.children.erase(folder.children.find(node->name));
  touch(folder);
  return Answer::done;
}

std::optional<ServerEntry> MemoryServer::stat(std::string_view path) const {
  std::lock_guard lock(mutex_);
  const Node* node = find(path);
  if (!node) return std::nullopt;
  return entryOf(*node);
}

std::optional<std::vector<ServerEntry>> MemoryServer::list(std::string_view path) const {
  std::lock_guard lock(mutex_);
  const Node* node = find(path);
  if (!node || !node->isFolder) return std::nullopt;
  std::vector<ServerEntry> entries;
  entries.reserve(node->children.size());
  for (const auto& [name, child] : node->children) entries.push_back(entryOf(*child));
  return entries;
}

std::optional<std::string> MemoryServer::pathOf(std::uint64_t number) const {
  std::lock_guard lock(mutex_);
  const auto found = nodes_.find(number);
  if (found == nodes_.end()) return std::nullopt;
  return pathOf(*found->second);
}

std::optional<std::string> MemoryServer::read(std::string_view path) const {
  std::lock_guard lock(mutex_);
  const Node* node = find(path);
  if (!node || node->isFolder) return std::nullopt;
  return node->bytes;
}

std::map<std::string, std::optional<std::string>> MemoryServer::tree() const {
  std::lock_guard lock(mutex_);
  std::map<std::string, std::optional<std::string>> tree;
  for (const auto& [number, node] : nodes_) {
    if (!node->parent) continue;
    tree[pathOf(*node)] = node->isFolder ? std::nullopt : std::optional(node->bytes);
  }
  return tree;
}

bool MemoryServer::everHeld(std::string_view bytes) const {
  std::lock_guard lock(mutex_);
  return std::any_of(held_.begin(), held_.end(), [&](const std::string& held) {
    return held.find(bytes) != std::string::npos;
  });
}

void MemoryServer::writeFile(std::string_view path, std::string_view bytes) {
  require(put(path, bytes), "cannot write", path);
}

void MemoryServer::makeFolder(std::string_view path) {
  require(makeCollection(path), "cannot make", path);
}

void MemoryServer::remove(std::string_view path) {
  require(delete_(path), "cannot remove", path);
}

void MemoryServer::rename(std::string_view from, std::string_view to) {
  require(move(from, to), "cannot rename", from);
}

}  // namespace kestrowan::test
