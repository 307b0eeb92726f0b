#include "platform/linux/CurlTrust.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace kestrowan {

namespace {

std::optional<SecCertificate> certificateCopy(X509* certificate) {
  unsigned char* bytes = nullptr;
  const int length = i2d_X509(certificate, &bytes);
  if (length <= 0) return std::nullopt;
  SecCertificate copy;
  copy.der.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
  OPENSSL_free(bytes);
  return copy;
}

std::shared_ptr<const SecTrust> presentedTrust(X509_STORE_CTX* store) {
  auto trust = std::make_shared<SecTrust>();
  auto* chain = X509_STORE_CTX_get0_untrusted(store);
  if (!chain || sk_X509_num(chain) <= 0) return trust;
  std::vector<SecCertificate> certificates;
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    auto copy = certificateCopy(sk_X509_value(chain, i));
    // A chain without its leaf must not make the next certificate the first.
    if (!copy) return trust;
    certificates.push_back(std::move(*copy));
  }
  trust->certificateChain = std::move(certificates);
  return trust;
}

int judgeServer(X509_STORE_CTX* store, void* handshake) noexcept {
  bool accepted = false;
  try {
    accepted = static_cast<CurlHandshake*>(handshake)->decide(NSURLAuthenticationMethodServerTrust,
                                                              presentedTrust(store));
  } catch (...) {
    accepted = false;
  }
  X509_STORE_CTX_set_error(store, accepted ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
  return accepted ? 1 : 0;
}

int judgeCertificateRequest(SSL*, void* handshake) noexcept {
  const bool accepted = static_cast<CurlHandshake*>(handshake)->decide(
      NSURLAuthenticationMethodClientCertificate, {});
  return accepted ? 1 : 0;
}

/// Where a context keeps its socket: curl makes one context for each connection.
int socketIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

const SSL* connectionOf(CURL* easy) {
  curl_tlssessioninfo* session = nullptr;
  if (curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &session) != CURLE_OK || !session) {
    return nullptr;
  }
  return static_cast<const SSL*>(session->internals);
}

}  // namespace

bool CurlChallenger::accepts(std::string_view method,
                             std::shared_ptr<const SecTrust> trust) const noexcept {
  try {
    const auto delegate = delegate_.lock();
    const auto session = session_.lock();
    if (!delegate || !session) return false;
    const NSURLAuthenticationChallenge challenge{{std::string(method), std::move(trust)}};
    // Shared, because a delegate might keep the handler beyond its call.
    const auto accepted = std::make_shared<bool>(false);
    delegate->urlSession(*session, challenge,
                         [accepted](NSURLSessionAuthChallengeDisposition disposition,
                                    std::optional<NSURLCredential>) {
                           *accepted =
                               disposition == NSURLSessionAuthChallengeDisposition::useCredential;
                         });
    return *accepted;
  } catch (...) {
    return false;
  }
}

void CurlHandshake::govern(ssl_ctx_st* context, int socket) {
  // Stored with one added, so that nothing stored reads as no socket.
  SSL_CTX_set_ex_data(context, socketIndex(), reinterpret_cast<void*>(std::intptr_t{socket} + 1));
  SSL_CTX_set_cert_verify_callback(context, &judgeServer, this);
  // Called only when a server asks for a client certificate; refusing ends the handshake.
  SSL_CTX_set_cert_cb(context, &judgeCertificateRequest, this);
  // No handshake may come later, when this object is gone and requests have been sent.
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
  SSL_CTX_set_post_handshake_auth(context, 0);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  // The environment can make curl write the keys of every connection to a file.
  SSL_CTX_set_keylog_callback(context, nullptr);
}

bool CurlHandshake::decide(std::string_view method,
                           std::shared_ptr<const SecTrust> trust) noexcept {
  const bool accepted = challenger_.accepts(method, std::move(trust));
  if (!accepted) refused_ = true;
  return accepted;
}

int socketOf(CURL* easy) {
  const auto* connection = connectionOf(easy);
  if (!connection) return -1;
  const auto* stored = SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), socketIndex());
  return static_cast<int>(reinterpret_cast<std::intptr_t>(stored)) - 1;
}

bool hasClosingAlert(CURL* easy) {
  const auto* connection = connectionOf(easy);
  return connection && (SSL_get_shutdown(connection) & SSL_RECEIVED_SHUTDOWN) != 0;
}

bool hasDecryptedInput(CURL* easy) {
  const auto* connection = connectionOf(easy);
  return connection && SSL_has_pending(connection) != 0;
}

}  // namespace kestrowan
