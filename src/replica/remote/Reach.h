#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "replica/remote/Health.h"

namespace kestrowan::replica::remote {

/// The provider's health behind a lock of its own, a leaf. Usable from every thread. The calls are
/// those of `Health`.
class Reach {
 public:
  Reach(async::Scope& scope, Provider& provider, std::function<void()> resume);
  Reach(const Reach&) = delete;
  Reach& operator=(const Reach&) = delete;

  bool isUp() const;
  bool isOffline() const;
  bool isSlow() const;
  std::optional<std::string> held() const;
  std::optional<std::string> unanswered() const;
  NSError reason() const;
  void begin();
  void stop();
  void noteSlow();
  void noteWaited(std::int64_t since);
  void note(const std::optional<NSError>& error);

  /// Ends at once while the provider can be asked. Else waits for a server as `Health::awaitServer`
  /// does, and throws the reason when there is none.
  Task<void> require();

  /// For a request that is made again.
  Health& health() { return health_; }

 private:
  Task<void> reach(std::shared_ptr<OneShot<void>> reached);

  async::Scope& scope_;
  mutable std::mutex mutex_;
  Health health_;
  bool isStopped_ = false;
};

}  // namespace kestrowan::replica::remote
