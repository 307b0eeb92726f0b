#include "platform/linux/CurlTrust.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace kestrowan {

namespace {

// Forward secrecy and a cipher in every one; none without a certificate.
constexpr const char* kSuites13 =
    "TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256";
constexpr const char* kSuites12 =
    "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20:ECDHE+AES:"
    "!AESCCM:!aNULL:!eNULL:!PSK:!SRP:!DSS";
constexpr int kSecurityLevel = 2;  // at least 112 bits
// An ordinary server sends a dozen, and seldom one more.
constexpr std::intptr_t kMostMessagesInARow = 1000;

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

/// Where a connection keeps how many messages of handshakes have come since the last data.
int messageCountIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

int socketOf(const SSL* connection) {
  const auto* stored = SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), socketIndex());
  return static_cast<int>(reinterpret_cast<std::intptr_t>(stored)) - 1;
}

/// Whether the library tells of a record with data of the application.
bool bringsData(const SSL* connection, int kind, const void* bytes, std::size_t size) {
  // In version 1.3 every sealed record looks like data from outside.
  const int telling =
      SSL_version(connection) == TLS1_3_VERSION ? SSL3_RT_INNER_CONTENT_TYPE : SSL3_RT_HEADER;
  return kind == telling && size > 0 &&
         *static_cast<const unsigned char*>(bytes) == SSL3_RT_APPLICATION_DATA;
}

/// Ends a connection on which a server sends nothing but messages of handshakes: the library
/// reads those, and answers some, for as long as they come.
void countMessage(int sent, int, int kind, const void* bytes, std::size_t size, SSL* connection,
                  void*) noexcept {
  if (sent != 0) return;
  auto count = reinterpret_cast<std::intptr_t>(SSL_get_ex_data(connection, messageCountIndex()));
  if (bringsData(connection, kind, bytes, size)) {
    count = 0;
  } else if (kind == SSL3_RT_HANDSHAKE && ++count > kMostMessagesInARow) {
    ::shutdown(socketOf(connection), SHUT_RDWR);
  }
  SSL_set_ex_data(connection, messageCountIndex(), reinterpret_cast<void*>(count));
}

bool allowGoodSuitesOnly(SSL_CTX* context) {
  SSL_CTX_set_security_level(context, kSecurityLevel);
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION);
  SSL_CTX_clear_options(context,
                        SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION | SSL_OP_LEGACY_SERVER_CONNECT);
  return SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 &&
         SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) == 1 &&
         SSL_CTX_set_ciphersuites(context, kSuites13) == 1 &&
         SSL_CTX_set_cipher_list(context, kSuites12) == 1;
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

bool CurlHandshake::govern(ssl_ctx_st* context, int socket) {
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
  SSL_CTX_set_msg_callback(context, &countMessage);
  return allowGoodSuitesOnly(context);
}

bool CurlHandshake::decide(std::string_view method,
                           std::shared_ptr<const SecTrust> trust) noexcept {
  const bool accepted = challenger_.accepts(method, std::move(trust));
  if (!accepted) refused_ = true;
  return accepted;
}

int socketOf(CURL* easy) {
  const auto* connection = connectionOf(easy);
  return connection ? socketOf(connection) : -1;
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
