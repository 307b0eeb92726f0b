#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "cli/drive/Driver.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

/// The reply to one request: written when the request has completed and its entry point has
/// returned, whichever comes last. Shared by both; each of the two calls comes once.
class Driver::Reply {
 public:
  /// Counts as running from here until the reply is written.
  Reply(Driver& driver, JSONValue id);
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  ~Reply();

  /// The request has completed; from any thread.
  void complete(const std::optional<NSError>& error, JSONValue::Object members = {});
  /// The entry point has returned, with a progress or without.
  void returned(std::shared_ptr<NSProgress> progress = nullptr);

 private:
  void write();

  Driver& driver_;
  const JSONValue id_;
  const std::thread::id caller_ = std::this_thread::get_id();
  std::mutex mutex_;  // guards what follows
  bool returned_ = false;
  bool completed_ = false;
  bool synchronous_ = false;
  std::shared_ptr<NSProgress> progress_;
  std::optional<NSError> error_;
  JSONValue::Object members_;
};

}  // namespace kestrowan::cli
