#include <openssl/ssl.h>

#include <algorithm>
#include <new>
#include <string>

#include "platform/linux/CurlError.h"
#include "platform/linux/CurlSocket.h"
#include "platform/linux/CurlTransfer.h"

namespace kestrowan {

namespace {

constexpr long kFileReceiveBufferBytes = 128 * 1024;
constexpr double kLongestConnectMilliseconds = 7.0 * 24 * 60 * 60 * 1000;

template <typename Value>
void set(CURL* easy, CURLoption option, Value value) {
  const auto code = curl_easy_setopt(easy, option, value);
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLE_OK) throw urlErrorForCurl(code, false, {});
}

/// How long connecting may take, the handshake included, however busily: nothing of an answer comes
/// before its end. At least 1, since 0 would mean another limit.
long connectMilliseconds(double timeoutSeconds) {
  const double milliseconds = timeoutSeconds * 1000;
  // The negation also catches what is not a number.
  if (!(milliseconds < kLongestConnectMilliseconds)) {
    return static_cast<long>(kLongestConnectMilliseconds);
  }
  return std::max(static_cast<long>(std::max(milliseconds, 0.0)), 1L);
}

}  // namespace

/// Called from C, so nothing may be thrown out of these.
struct CurlTransfer::Callbacks {
  static CurlTransfer& self(void* pointer) { return *static_cast<CurlTransfer*>(pointer); }

  /// What `step` gives; when it throws, `otherwise`, and `transfer` ends with the error.
  template <typename Step, typename Value>
  static Value attempt(CurlTransfer& transfer, const Step& step, Value otherwise) noexcept {
    try {
      return step();
    } catch (const NSError& error) {
      transfer.stopWith(error);
    } catch (const std::bad_alloc&) {
      transfer.stopWith(outOfMemoryError());
    }
    return otherwise;
  }

  static curl_socket_t openSocket(void* pointer, curlsocktype, curl_sockaddr* address) noexcept {
    auto& transfer = self(pointer);
    if (!transfer.mayConnect()) return CURL_SOCKET_BAD;
    const int socket = openSocketCloseOnExec(address->family, address->socktype, address->protocol);
    if (socket >= 0) keepPeerNear(socket);
    transfer.socket_ = socket;
    transfer.madeConnection_ = true;
    return socket < 0 ? CURL_SOCKET_BAD : socket;
  }

  static CURLcode governTLS(CURL*, void* context, void* pointer) noexcept {
    auto& transfer = self(pointer);
    const bool governed =
        transfer.handshake_->govern(static_cast<SSL_CTX*>(context), transfer.socket_);
    return governed ? CURLE_OK : CURLE_SSL_CIPHER;
  }

  static int beforeRequest(void* pointer, char*, char*, int, int) noexcept {
    auto& transfer = self(pointer);
    return attempt(
               transfer, [&] { return transfer.maySend(); }, false)
               ? CURL_PREREQFUNC_OK
               : CURL_PREREQFUNC_ABORT;
  }

  static std::size_t headerLine(char* data, std::size_t, std::size_t size, void* pointer) noexcept {
    auto& transfer = self(pointer);
    const auto take = [&] {
      transfer.takeHeaderLine({data, size});
      return size;
    };
    return attempt(transfer, take, std::size_t{CURL_WRITEFUNC_ERROR});
  }

  static std::size_t body(char* data, std::size_t, std::size_t size, void* pointer) noexcept {
    auto& transfer = self(pointer);
    const auto take = [&] {
      return transfer.take({data, size}) ? size : std::size_t{CURL_WRITEFUNC_PAUSE};
    };
    return attempt(transfer, take, std::size_t{CURL_WRITEFUNC_ERROR});
  }

  static std::size_t source(char* buffer, std::size_t, std::size_t capacity,
                            void* pointer) noexcept {
    auto& transfer = self(pointer);
    const auto give = [&] { return transfer.give(buffer, capacity); };
    return attempt(transfer, give, std::size_t{CURL_READFUNC_ABORT});
  }

  static int progress(void* pointer, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) noexcept {
    self(pointer).noteProgress(sent);
    return 0;
  }
};

void CurlTransfer::setOptions() {
  set(easy_, CURLOPT_PRIVATE, static_cast<void*>(this));
  set(easy_, CURLOPT_ERRORBUFFER, &reason_[0]);
  set(easy_, CURLOPT_NOSIGNAL, 1L);
  set(easy_, CURLOPT_CONNECTTIMEOUT_MS, connectMilliseconds(request_.timeoutInterval));

  // The request is what it says, once, to the host that it names.
  set(easy_, CURLOPT_URL, request_.url.absoluteString().c_str());
  set(easy_, CURLOPT_PROTOCOLS_STR, "https");
  set(easy_, CURLOPT_PATH_AS_IS, 1L);
  set(easy_, CURLOPT_FOLLOWLOCATION, 0L);
  set(easy_, CURLOPT_PROXY, "");
  set(easy_, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  set(easy_, CURLOPT_HTTP09_ALLOWED, 0L);
  set(easy_, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  set(easy_, CURLOPT_HTTPHEADER, headers_.get());
  set(easy_, CURLOPT_OPENSOCKETFUNCTION, &Callbacks::openSocket);
  set(easy_, CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));
  set(easy_, CURLOPT_PREREQFUNCTION, &Callbacks::beforeRequest);
  set(easy_, CURLOPT_PREREQDATA, static_cast<void*>(this));
  setMethod();

  // Several connections of version 1.1 are faster on one machine than one of version 2.
  set(easy_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(easy_, CURLOPT_SSL_ENABLE_ALPN, 0L);

  // The verification is on, but its only judge is the delegate.
  set(easy_, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(easy_, CURLOPT_SSL_VERIFYPEER, 1L);
  set(easy_, CURLOPT_SSL_VERIFYHOST, 0L);
  set(easy_, CURLOPT_CAINFO, static_cast<char*>(nullptr));
  set(easy_, CURLOPT_CAPATH, static_cast<char*>(nullptr));
  set(easy_, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  set(easy_, CURLOPT_SSL_CTX_FUNCTION, &Callbacks::governTLS);
  set(easy_, CURLOPT_SSL_CTX_DATA, static_cast<void*>(this));

  set(easy_, CURLOPT_XFERINFOFUNCTION, &Callbacks::progress);
  set(easy_, CURLOPT_XFERINFODATA, static_cast<void*>(this));
  set(easy_, CURLOPT_NOPROGRESS, 0L);
  set(easy_, CURLOPT_HEADERFUNCTION, &Callbacks::headerLine);
  set(easy_, CURLOPT_HEADERDATA, static_cast<void*>(this));
  set(easy_, CURLOPT_WRITEFUNCTION, &Callbacks::body);
  set(easy_, CURLOPT_WRITEDATA, static_cast<void*>(this));
  if (kind_ == Kind::download) set(easy_, CURLOPT_BUFFERSIZE, kFileReceiveBufferBytes);
}

void CurlTransfer::setMethod() {
  const auto& method = request_.httpMethod;
  if (uploadFile_) {
    set(easy_, CURLOPT_UPLOAD, 1L);
    set(easy_, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(uploadFile_->size()));
    set(easy_, CURLOPT_READFUNCTION, &Callbacks::source);
    set(easy_, CURLOPT_READDATA, static_cast<void*>(this));
  } else if (method == "HEAD") {
    set(easy_, CURLOPT_NOBODY, 1L);
  }
  set(easy_, CURLOPT_CUSTOMREQUEST, method.c_str());
}

}  // namespace kestrowan
