#include "async/BlockedSignals.h"

#include <pthread.h>

#include <initializer_list>

namespace kestrowan::async {

BlockedSignals::BlockedSignals() {
  sigset_t blocked;
  ::sigfillset(&blocked);
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
    ::sigdelset(&blocked, fault);
  }
  ::pthread_sigmask(SIG_SETMASK, &blocked, &before_);
}

BlockedSignals::~BlockedSignals() {
  ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace kestrowan::async
