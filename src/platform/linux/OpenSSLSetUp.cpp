#include "platform/linux/OpenSSLSetUp.h"

#include <openssl/ssl.h>

namespace kestrowan {

bool setUpOpenSSL() {
  // The library decides at its first such call, and for good, whether it loads a configuration.
  static const bool isReady = OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1;
  return isReady;
}

void freeOpenSSLOfThread() noexcept {
  OPENSSL_thread_stop();
}

}  // namespace kestrowan
