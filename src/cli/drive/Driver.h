#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "cli/ExitCode.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// Hosts one extension for a script: a request a line on standard input, its reply a line on
/// standard output. Requests run at once, and replies come in the order of completion.
class Driver {
 public:
  explicit Driver(std::shared_ptr<NSFileProviderReplicatedExtension> extension);
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  /// Serves until the end of input, then until every reply has been written.
  ExitCode run();

 private:
  class Reply;
  class ItemObserver;
  class ChangeObserver;

  void serve(std::string_view line);
  void begin(const JSONValue& request);
  void enumerateItems(const JSONValue& request, std::shared_ptr<Reply> reply);
  void enumerateChanges(const JSONValue& request, std::shared_ptr<Reply> reply);
  void currentSyncAnchor(const JSONValue& request, std::shared_ptr<Reply> reply);
  void item(const JSONValue& request, std::shared_ptr<Reply> reply);
  void fetchContents(const JSONValue& request, std::shared_ptr<Reply> reply);
  void createItem(const JSONValue& request, std::shared_ptr<Reply> reply);
  void modifyItem(const JSONValue& request, std::shared_ptr<Reply> reply);
  void deleteItem(const JSONValue& request, std::shared_ptr<Reply> reply);
  void invalidate(const JSONValue& request, std::shared_ptr<Reply> reply);

  void refuse(JSONValue id, std::string_view why);
  void write(const JSONValue& line);

  const std::shared_ptr<NSFileProviderReplicatedExtension> extension_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable idle_;
  std::size_t running_ = 0;
  bool outputLost_ = false;
};

}  // namespace kestrowan::cli
