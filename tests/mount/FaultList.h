#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/foundation/JSONValue.h"
#include "support/Faults.h"

namespace kestrowan::test {

/// What shall go wrong with the calls of the provider, as the tests say it. Usable from every
/// thread.
class FaultList {
 public:
  /// Adds a fault for the calls of a "kind" ("fetchContents" and so on; every kind when absent) at
  /// a "path" (every path when absent), as often as "times" says (always when absent). What goes
  /// wrong: "error" [domain, code], "effect" ("all", "firstRequest", "none"), "hangs", "delay" in
  /// milliseconds, "entries", "fileSize".
  /// Throws `std::invalid_argument`.
  void add(const JSONValue& json);
  void clear();

  /// The fault of this call: the first that is meant for it.
  Fault of(const Call& call);

 private:
  struct Entry {
    std::string kind;
    std::string path;
    std::int64_t times = -1;
    Fault fault;
  };

  std::mutex mutex_;
  std::vector<Entry> entries_;
};

}  // namespace kestrowan::test
