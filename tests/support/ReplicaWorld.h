#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "replica/Replica.h"
#include "support/BegunCall.h"
#include "support/InMemoryExtension.h"
#include "support/MemoryServer.h"
#include "support/SimulatedLoop.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {

/// A replica over a provider in memory, with a time of its own, and programs' calls as plain
/// functions. Each throws the call's `NSError`, and `std::runtime_error` when a call is not
/// answered within ten simulated minutes. Paths begin with "/". One thread.
class ReplicaWorld {
 public:
  explicit ReplicaWorld(InMemoryOptions extensionOptions = {}, replica::Options options = {});
  ~ReplicaWorld();

  SimulatedLoop& loop() { return loop_; }
  MemoryServer& server() const { return *server_; }
  InMemoryExtension& extension() { return *extension_; }
  replica::Replica& replica() { return *replica_; }
  /// Where the replica lies.
  const std::string& directory() const { return directory_.path(); }

  /// Ends the process and begins a new one: nothing is said to the replica before.
  void crash();
  /// The same, without a provider until `connect`; `between` is run while there is no replica.
  void crashUnconnected(const std::function<void()>& between = {});
  void connect(FaultHook faults = {});

  void advance(std::chrono::milliseconds time) { loop_.advance(time); }
  /// Until both sides agree; false when they do not within a simulated hour.
  bool settle();

  // What programs do.
  replica::Attributes attributes(std::string_view path);
  bool exists(std::string_view path);
  std::vector<std::string> list(std::string_view path);
  std::string read(std::string_view path);
  /// Creates the file or empties it, writes and closes.
  void write(std::string_view path, std::string_view bytes);
  void append(std::string_view path, std::string_view bytes);
  std::shared_ptr<replica::OpenFile> open(std::string_view path, replica::OpenMode mode);
  std::shared_ptr<replica::OpenFile> create(std::string_view path);
  void makeFolder(std::string_view path);
  void remove(std::string_view path);
  void removeFolder(std::string_view path);
  void rename(std::string_view from, std::string_view to, bool replace = true);
  /// Everything below the root, as `MemoryServer::tree` has it.
  std::map<std::string, std::optional<std::string>> tree();

  /// The bytes of everything in the history, the latest first.
  std::vector<std::string> history();

  static void writeTo(const replica::OpenFile& file, std::string_view bytes, std::int64_t at = 0);
  /// What `read` gives a program; waits for it. Throws its error.
  std::string readArriving(const std::shared_ptr<replica::OpenFile>& file, std::int64_t offset,
                           std::size_t size);
  static std::string readFrom(const replica::OpenFile& file);

  /// The number of the item at a path. Throws ENOENT.
  replica::Rid find(std::string_view path);
  /// Begins a call of the replica.
  template <typename T>
  BegunCall<T> call(Task<T> task) {
    return {*replica_, std::move(task)};
  }
  /// The same, and what it comes to; throws its error.
  template <typename T>
  T await(Task<T> task) {
    const auto begun = call(std::move(task));
    awaitUntil([&] { return begun.hasEnded(); });
    return begun.result();
  }

 private:
  /// Throws when that does not come about.
  void awaitUntil(const std::function<bool()>& condition);
  struct Place {
    replica::Rid folder;
    std::string name;
  };
  Place place(std::string_view path);
  void gather(const std::string& path, std::map<std::string, std::optional<std::string>>& into);
  void begin();
  void end();

  InMemoryOptions extensionOptions_;
  replica::Options options_;
  TemporaryDirectory directory_;
  SimulatedLoop loop_;
  std::shared_ptr<MemoryServer> server_;
  std::shared_ptr<InMemoryExtension> extension_;
  std::unique_ptr<replica::Replica> replica_;
};

/// "NSPOSIXErrorDomain 2" of the `NSError` that `call` throws; "" when it throws none.
template <typename Call>
std::string errorOf(Call&& call) {
  try {
    call();
  } catch (const NSError& error) {
    return error.domain() + " " + std::to_string(error.code());
  }
  return {};
}

}  // namespace kestrowan::test
