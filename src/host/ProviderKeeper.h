#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "replica/Options.h"

namespace kestrowan::host {

using ProviderFactory = std::function<std::shared_ptr<NSFileProviderReplicatedExtension>()>;

/// Makes the extension of a domain: one that reads the bridge file as it is now.
ProviderFactory extensionFactory(NSFileProviderDomain domain);

/// What the extension is known to refuse without asking the server, for the replica.
decltype(replica::Options::wouldRefuse) extensionRefusals();

/// Keeps a replica's provider good: makes a new one when told to, and time and again while the
/// present one does not work. What a function throws is a line in the log, and is tried again after
/// the interval. Lives no longer than what its functions use.
class ProviderKeeper {
 public:
  struct Functions {
    ProviderFactory make;
    /// Takes the new provider.
    std::function<void(std::shared_ptr<NSFileProviderReplicatedExtension>)> use;
    /// Whether the present one is held: it cannot work with the configuration that it has.
    std::function<bool()> isHeld;
  };

  /// All functions are called on the keeper's own thread but for `start`, `make` and `use` never
  /// twice at a time. `interval`: between two attempts while held.
  ProviderKeeper(Functions functions, std::chrono::milliseconds interval);
  ProviderKeeper(const ProviderKeeper&) = delete;
  ProviderKeeper& operator=(const ProviderKeeper&) = delete;
  /// Waits for a call that is running.
  ~ProviderKeeper();

  /// Makes the first provider, on the caller's thread.
  void start();
  /// Makes a new provider soon. From every thread.
  void renew();

 private:
  void run();
  void replace();

  const Functions functions_;
  const std::chrono::milliseconds interval_;
  std::mutex replacing_;  // held during make and use
  std::mutex mutex_;      // guards what follows
  std::condition_variable changed_;
  bool wanted_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace kestrowan::host
