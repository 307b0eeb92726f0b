#pragma once

#include <memory>

#include "async/LoopThread.h"
#include "mount/FaultList.h"
#include "mount/HostOptions.h"
#include "mount/Mount.h"
#include "platform/foundation/JSONValue.h"
#include "replica/Replica.h"
#include "support/InMemoryExtension.h"
#include "support/MemoryServer.h"

namespace kestrowan::test {

/// A mount of a provider in memory, and the server behind it, as a script wants them.
class Host {
 public:
  explicit Host(HostOptions options);
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  ~Host();

  /// Does what one command says: an object with "do" and what belongs to it. Gives the members of
  /// the answer. Throws `NSError` and `std::invalid_argument`.
  JSONValue::Object perform(const JSONValue& command);

 private:
  JSONValue::Object onServer(std::string_view what, const JSONValue& command);
  JSONValue::Object onProvider(std::string_view what, const JSONValue& command);
  JSONValue::Object onReplica(std::string_view what, const JSONValue& command);
  JSONValue::Object onMount(std::string_view what, const JSONValue& command);
  void begin();
  replica::Rid find(const std::string& path);

  const HostOptions options_;
  std::shared_ptr<MemoryServer> server_ = std::make_shared<MemoryServer>();
  FaultList faults_;
  // The order in which they need each other.
  std::unique_ptr<async::LoopThread> loop_;
  std::unique_ptr<replica::Replica> replica_;
  std::shared_ptr<InMemoryExtension> provider_;
  std::unique_ptr<mount::Mount> mount_;
};

}  // namespace kestrowan::test
