#include "platform/linux/CurlError.h"

#include <string>

namespace kestrowan {

namespace {

NSURLErrorCode codeBeforeRequest(CURLcode code) {
  switch (code) {
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return NSURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
      return NSURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return NSURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return NSURLErrorTimedOut;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_USE_SSL_FAILED:
      return NSURLErrorSecureConnectionFailed;
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      return NSURLErrorNetworkConnectionLost;
    default:
      return NSURLErrorUnknown;
  }
}

NSURLErrorCode codeAfterRequest(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return NSURLErrorTimedOut;
    // curl reports what is no HTTP at all, and a header line beyond its limit, with these.
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_OUT_OF_MEMORY:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_FILESIZE_EXCEEDED:
    case CURLE_WRITE_ERROR:
    case CURLE_BAD_FUNCTION_ARGUMENT:
      return NSURLErrorCannotParseResponse;
    default:
      return NSURLErrorNetworkConnectionLost;
  }
}

// Never destroyed: a transfer may end after the static objects of the program.
const NSError& kOutOfMemory =
    *new NSError(NSURLErrorDomain, NSURLErrorUnknown, {{"NSUnderlyingError", "out of memory"}});

}  // namespace

NSError urlError(NSURLErrorCode code, std::string_view reason) {
  NSError::UserInfo userInfo;
  if (!reason.empty()) userInfo.emplace("NSUnderlyingError", reason);
  return NSError(NSURLErrorDomain, code, std::move(userInfo));
}

const NSError& outOfMemoryError() {
  return kOutOfMemory;
}

NSError urlErrorForCurl(CURLcode code, bool requestSent, std::string_view reason) {
  return urlError(requestSent ? codeAfterRequest(code) : codeBeforeRequest(code),
                  reason.empty() ? curl_easy_strerror(code) : reason);
}

}  // namespace kestrowan
