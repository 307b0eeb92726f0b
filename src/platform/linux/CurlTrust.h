#pragma once

#include <curl/curl.h>

#include <memory>
#include <string_view>

#include "platform/network/NSURLSession.h"

struct ssl_ctx_st;

namespace kestrowan {

/// Asks a session's delegate whether to trust a server. Lives as long as the session's engine;
/// asked on the transfer thread only.
class CurlChallenger {
 public:
  explicit CurlChallenger(std::weak_ptr<NSURLSessionDelegate> delegate)
      : delegate_(std::move(delegate)) {}

  /// The session that the delegate is told of; set before the first question.
  void setSession(std::weak_ptr<NSURLSession> session) { session_ = std::move(session); }

  /// Whether the delegate answers a challenge of `method` with a credential. No delegate, an
  /// exception and a handler that was not called count as a refusal.
  bool accepts(std::string_view method, std::shared_ptr<const SecTrust> trust) const noexcept;

 private:
  std::weak_ptr<NSURLSessionDelegate> delegate_;
  std::weak_ptr<NSURLSession> session_;
};

/// The handshake of one transfer, as far as trust is concerned. Outlives that handshake.
class CurlHandshake {
 public:
  explicit CurlHandshake(const CurlChallenger& challenger) : challenger_(challenger) {}

  /// Makes the delegate the only judge of the server that `context` talks to, allows good versions
  /// and suites only, whatever the environment says, keeps secrets, resumption and later handshakes
  /// out of it, and bounds what a server may say in a handshake. `socket` is what the context will
  /// talk through. False when that cannot be done: the context must not be used then.
  bool govern(ssl_ctx_st* context, int socket);

  bool decide(std::string_view method, std::shared_ptr<const SecTrust> trust) noexcept;
  /// Whether any challenge was refused.
  bool refused() const { return refused_; }

 private:
  const CurlChallenger& challenger_;
  bool refused_ = false;
};

/// The socket under a running transfer's TLS connection, a reused one included; -1 for none.
int socketOf(CURL* easy);

/// Whether the server has announced the end of a running transfer's TLS connection.
bool hasClosingAlert(CURL* easy);

/// Whether the TLS connection of a running transfer holds bytes that were received but not read.
bool hasDecryptedInput(CURL* easy);

}  // namespace kestrowan
