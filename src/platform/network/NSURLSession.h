#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "platform/base/Task.h"
#include "platform/network/NSURLAuthenticationChallenge.h"
#include "platform/network/NSURLRequest.h"
#include "platform/network/NSURLResponse.h"

namespace kestrowan {

class NSURLSession;

/// Decides for a session. Called on the session's own serial queue.
class NSURLSessionDelegate {
 public:
  virtual ~NSURLSessionDelegate() = default;

  /// A server asks to be authenticated, inside the handshake and before any byte of a request is
  /// sent. `completionHandler` must be called exactly once, before this returns; anything but
  /// `useCredential` fails the request with `NSURLErrorCancelled`.
  virtual void urlSession(NSURLSession& session, const NSURLAuthenticationChallenge& challenge,
                          const NSURLSessionChallengeHandler& completionHandler) = 0;
};

/// Settings of a session. A plain value.
struct NSURLSessionConfiguration {
  /// Seconds without any progress after which a request fails; a request's own limit, if shorter,
  /// comes first.
  double timeoutIntervalForRequest = 60;
  /// Sent with every request, before the request's own headers.
  HTTPHeaders HTTPAdditionalHeaders = {};

  /// No cookies, cache or stored credentials.
  static NSURLSessionConfiguration ephemeralSessionConfiguration() { return {}; }
};

/// Takes the body of a response while it arrives.
class NSURLSessionDataReceiver {
 public:
  virtual ~NSURLSessionDataReceiver() = default;

  /// The next piece of the body, in order, on an executor thread, one call at a time, and only
  /// before the task that it belongs to completes. The view is valid only during the call. What it
  /// throws ends the request, and is what the task throws.
  virtual void didReceiveData(std::string_view data) = 0;
};

struct NSURLSessionDownload {
  /// A file of mode 0600 in the temporary directory, owned by the caller.
  NSURL location;
  std::shared_ptr<const NSURLResponse> response;
};

/// Sends requests over HTTPS, many at once, over kept-alive connections.
///
/// One call is one request: no redirect is followed, nothing is sent twice, and neither proxies,
/// cookies, caches nor stored credentials are used. Every task throws `NSError` of
/// `NSURLErrorDomain` when no whole response arrived: `NSURLErrorBadURL` (also a port outside
/// 1…65535), `NSURLErrorCannotConnectToHost`, `NSURLErrorTimedOut`, `NSURLErrorCancelled` (the
/// delegate refused a challenge, or the task was abandoned), `NSURLErrorSecureConnectionFailed`,
/// `NSURLErrorNetworkConnectionLost` (also a body shorter than announced, and one without a length
/// whose end the server's TLS does not announce), `NSURLErrorCannotParseResponse` (also a transfer
/// coding other than `chunked` alone), or `NSURLErrorUnknown` for what has no code of its own. Any
/// HTTP status is a response. Where a body is discarded, the status counts once the head is whole,
/// however the body ends; success counts for a file only when all of it was sent.
///
/// A request may wait for a connection without end. It is not sent once the `Abandonment` of its
/// task has been declared, and is broken off if it has been.
///
/// Shared by pointer; usable from every thread. Keeps no strong reference to its delegate, so
/// whoever awaits a task must keep the delegate alive until it completes; a challenge without a
/// delegate is cancelled.
class NSURLSession {
 public:
  virtual ~NSURLSession() = default;

  using Factory = std::function<std::shared_ptr<NSURLSession>(const NSURLSessionConfiguration&,
                                                              std::weak_ptr<NSURLSessionDelegate>)>;

  /// A new session with a serial delegate queue of its own.
  static std::shared_ptr<NSURLSession> session(const NSURLSessionConfiguration& configuration,
                                               std::weak_ptr<NSURLSessionDelegate> delegate);
  /// Replaces what `session` makes, for tests; an empty factory brings back the platform's own.
  static void setFactory(Factory factory);

  /// Sends `request` and hands the body to `receiver`, which may be null to discard it.
  virtual Task<std::shared_ptr<const NSURLResponse>> dataTask(
      NSURLRequest request, std::shared_ptr<NSURLSessionDataReceiver> receiver) = 0;
  /// Sends `request` and stores the body in a file. Also throws `NSURLErrorCannotCreateFile` and
  /// `NSURLErrorCannotWriteToFile` (a full disk); whenever it throws, no file stays behind.
  virtual Task<NSURLSessionDownload> downloadTask(NSURLRequest request) = 0;
  /// Sends `request` with the contents of the local file `fromFile` as its body, discarding the
  /// response's body. Also throws `NSURLErrorFileDoesNotExist`, `NSURLErrorFileIsDirectory`,
  /// `NSURLErrorNoPermissionsToReadFile` and, when the file shrinks meanwhile,
  /// `NSURLErrorRequestBodyStreamExhausted`.
  virtual Task<std::shared_ptr<const NSURLResponse>> uploadTask(NSURLRequest request,
                                                                NSURL fromFile) = 0;
};

}  // namespace kestrowan
