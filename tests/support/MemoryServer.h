#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kestrowan::test {

/// What the server knows of one file or folder.
struct ServerEntry {
  /// "/" for the root; without a slash at the end otherwise.
  std::string path;
  std::string name;
  /// Stays the same through renames and new contents; the root's is 1.
  std::uint64_t number = 0;
  std::uint64_t parent = 0;
  bool isFolder = false;
  /// Bytes; 0 for a folder.
  std::int64_t size = 0;
  /// Another one after each change.
  std::uint64_t revision = 0;
  /// Whole seconds since 1970-01-01 UTC.
  std::int64_t date = 0;
};

/// A server's tree of files in memory, which several providers may project one after the other.
/// Answers as a WebDAV server does, and can be changed behind the providers' backs. Paths begin
/// with "/". Usable from every thread.
class MemoryServer {
 public:
  /// `clock` gives the seconds since 1970-01-01 UTC; without one it is the system's.
  explicit MemoryServer(std::function<std::int64_t()> clock = {});
  MemoryServer(const MemoryServer&) = delete;
  MemoryServer& operator=(const MemoryServer&) = delete;
  ~MemoryServer();

  // For tests. What cannot be done throws `std::invalid_argument`.

  /// Makes the file, or gives it new contents.
  void writeFile(std::string_view path, std::string_view bytes);
  void makeFolder(std::string_view path);
  /// With all that is in it.
  void remove(std::string_view path);
  /// Never replaces.
  void rename(std::string_view from, std::string_view to);
  /// A file's contents; nothing when there is no such file.
  std::optional<std::string> read(std::string_view path) const;
  /// Everything but the root: the bytes of files, nothing for folders.
  std::map<std::string, std::optional<std::string>> tree() const;

  /// From now on every name in a path is taken as what `form` makes of it.
  void setForm(std::function<std::string(std::string_view name)> form);

  /// Whether a file held these bytes at any time, as the whole of its contents or as a part.
  bool everHeld(std::string_view bytes) const;

  // Requests.

  enum class Answer {
    done,
    notFound,
    conflict,    // no folder to put it in, or a folder into itself
    notAllowed,  // not with what is there
    exists,
  };

  std::optional<ServerEntry> stat(std::string_view path) const;
  /// The entries of a folder by name; nothing when there is no such folder.
  std::optional<std::vector<ServerEntry>> list(std::string_view path) const;
  /// Replaces a file silently.
  Answer put(std::string_view path, std::string_view bytes);
  Answer makeCollection(std::string_view path);
  Answer move(std::string_view from, std::string_view to);
  /// Of the root, all that is in it.
  Answer delete_(std::string_view path);
  std::optional<std::string> pathOf(std::uint64_t number) const;

 private:
  struct Node;

  Node* find(std::string_view path) const;
  /// The folder that `path` is to be in, or null; `name` becomes the last component.
  Node* parentOf(std::string_view path, std::string& name) const;
  std::string pathOf(const Node& node) const;
  ServerEntry entryOf(const Node& node) const;
  Node& addChild(Node& folder, const std::string& name, bool isFolder);
  void touch(Node& node);
  void forget(const Node& node);

  std::string formed(std::string_view name) const;

  const std::function<std::int64_t()> clock_;
  mutable std::mutex mutex_;
  // Guarded by mutex_, as is all below.
  std::unique_ptr<Node> root_;
  std::unordered_map<std::uint64_t, Node*> nodes_;
  std::uint64_t lastNumber_ = 0;
  std::uint64_t lastRevision_ = 0;
  std::vector<std::string> held_;
  std::function<std::string(std::string_view)> form_;
};

}  // namespace kestrowan::test
