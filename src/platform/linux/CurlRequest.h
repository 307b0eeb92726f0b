#pragma once

#include <curl/curl.h>

#include <memory>

#include "platform/network/NSURLRequest.h"

namespace kestrowan {

struct CurlListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlList = std::unique_ptr<curl_slist, CurlListDeleter>;

/// Throws `NSURLErrorBadURL` unless the request can be written as exactly one HTTP request to an
/// https server: a port in 1…65535, no blanks, control or non-ASCII characters and no user name in
/// the URL, a method and header names that are tokens, and header values without line ends.
void checkRequest(const NSURLRequest& request, const HTTPHeaders& sessionHeaders);

/// The header lines of a checked request in the order of sending: the session's, the request's.
CurlList headerLines(const HTTPHeaders& sessionHeaders, const HTTPHeaders& requestHeaders);

}  // namespace kestrowan
