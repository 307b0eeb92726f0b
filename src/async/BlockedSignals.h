#pragma once

#include <signal.h>

namespace kestrowan::async {

/// While it lives, threads that the calling one starts take no signals but those of their own
/// faults. A local variable.
class BlockedSignals {
 public:
  BlockedSignals();
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;
  ~BlockedSignals();

 private:
  sigset_t before_;
};

}  // namespace kestrowan::async
