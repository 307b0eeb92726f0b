#include "platform/linux/CurlTransfer.h"

#include <fcntl.h>

#include <new>
#include <utility>

#include "platform/base/Threads.h"
#include "platform/linux/CurlError.h"
#include "platform/linux/CurlSocket.h"
#include "platform/linux/CurlTrust.h"
#include "platform/network/Arrivals.h"
#include "platform/network/FinishedTransfers.h"

namespace kestrowan {

namespace {

/// So much of a body that is ignored is read for the sake of the connection, which can be used
/// again when the body ends there.
constexpr std::int64_t kLongestIgnoredBody = std::int64_t{1} << 20;

CurlList checkedHeaderLines(const NSURLRequest& request, const HTTPHeaders& sessionHeaders) {
  checkRequest(request, sessionHeaders);
  return headerLines(sessionHeaders, request.headers);
}

}  // namespace

CurlTransfer::CurlTransfer(Kind kind, NSURLRequest request, const HTTPHeaders& sessionHeaders,
                           std::shared_ptr<CurlBodySink> sink,
                           std::shared_ptr<Abandonment> abandonment, std::optional<NSURL> upload)
    : kind_(kind),
      request_(std::move(request)),
      headers_(checkedHeaderLines(request_, sessionHeaders)),
      sink_(std::move(sink)),
      abandonment_(std::move(abandonment)),
      uploadURL_(std::move(upload)),
      idleTimer_(request_.timeoutInterval) {}

void CurlTransfer::prepare(CURL* easy, const CurlChallenger& challenger) {
  TransferStatus status;
  status.httpMethod = request_.httpMethod;
  status.url = request_.url.absoluteString();
  if (uploadURL_) {
    uploadFile_.emplace(*uploadURL_);
    status.bytesExpectedToSend = uploadFile_->size();
  }
  sink_->open();
  monitored_.emplace(TransferMonitor::shared(), std::move(status));
  handshake_.emplace(challenger);
  easy_ = easy;
  setOptions();
  begunAt_ = Clock::now();
  idleTimer_.restart(begunAt_);
}

CurlTransfer::Verdict CurlTransfer::end(CURLcode code) noexcept {
  if (std::exchange(connectionWasClosed_, false)) {
    reason_[0] = '\0';
    curl_easy_setopt(easy_, CURLOPT_FRESH_CONNECT, 1L);
    return Verdict::runAgain;
  }
  conclude(code);
  return Verdict::finished;
}

long CurlTransfer::status() const {
  long status = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

void CurlTransfer::conclude(CURLcode code) noexcept {
  monitored_.reset();
  try {
    if (handshake_->refused()) throw urlError(NSURLErrorCancelled, reason_);
    if (!countsByStatus()) {
      if (ownError_) throw *ownError_;
      if (code != CURLE_OK) throw urlErrorForCurl(code, requestSent_, reason_);
      requireWholeAnswer();
    }
    list(0);
    sink_->finish(std::make_shared<NSHTTPURLResponse>(status()));
  } catch (const NSError& error) {
    guarded("the list of requests", [&] { list(error.code()); });
    fail(error);
  } catch (const std::bad_alloc&) {
    fail(outOfMemoryError());
  }
  uploadFile_.reset();
}

/// The request has ended.
void CurlTransfer::list(std::int64_t errorCode) const {
  const auto now = Clock::now();
  FinishedTransfers::shared().add(
      {.httpMethod = request_.httpMethod,
       .url = request_.url.absoluteString(),
       .httpStatus = head_.isComplete() ? status() : 0,
       .finishedAt = now,
       .body = body_,
       .duration = std::chrono::duration_cast<std::chrono::milliseconds>(now - begunAt_),
       .bytesSent = uploadFile_ ? bytesSent() : 0,
       .bytesReceived = bytesReceived_,
       .errorCode = errorCode,
       .abandonment = abandonment_});
}

std::int64_t CurlTransfer::bytesSent() const {
  curl_off_t sent = 0;
  curl_easy_getinfo(easy_, CURLINFO_SIZE_UPLOAD_T, &sent);
  return sent;
}

/// Whether the status is all that matters of the answer, and is known. A file that was not sent
/// whole is not there, whatever the server says.
bool CurlTransfer::countsByStatus() const {
  if (!head_.isComplete() || !sink_->ignoresBody()) return false;
  const bool isSuccess = status() >= 200 && status() <= 299;
  return !uploadFile_ || !isSuccess || bytesSent() == uploadFile_->size();
}

void CurlTransfer::requireWholeAnswer() const {
  if (!head_.isComplete()) {
    throw urlError(NSURLErrorNetworkConnectionLost, "the head of the answer broke off");
  }
  // Anybody can cut a connection, but only the server can end its TLS.
  if (head_.leavesEndOpen() && request_.httpMethod != "HEAD" && !endWasAnnounced_) {
    throw urlError(NSURLErrorNetworkConnectionLost, "the end of the body was not announced");
  }
}

void CurlTransfer::resume() {
  if (!std::exchange(waitsForReader_, false)) return;
  idleTimer_.restart(Clock::now());
  curl_easy_pause(easy_, CURLPAUSE_CONT);
}

bool CurlTransfer::isIdle(Clock::time_point now) {
  const auto traffic = trafficOf(socket_);
  monitored_->moved(static_cast<std::int64_t>(traffic.bytesMoved - bytesMovedBefore_));
  if (waitsForReader_) {
    idleTimer_.restart(now);
    monitored_->stirred();
  }
  return idleTimer_.note(traffic, now);
}

bool CurlTransfer::maySend() {
  // Curl comes here again when it wants to send the request a second time, because a reused
  // connection was closed before the first byte of the answer.
  if (requestSent_) return false;
  if (isUnwanted()) {
    stopWith(urlError(NSURLErrorCancelled));
    return false;
  }
  if (!madeConnection_) {
    socket_ = socketOf(easy_);
    bytesMovedBefore_ = trafficOf(socket_).bytesMoved;
    // What waits on an idle connection is its closing, or belongs to no answer of ours. Nothing of
    // the request has been sent yet, so another connection may carry it.
    if (hasInput(socket_) || hasDecryptedInput(easy_)) {
      connectionWasClosed_ = true;
      return false;
    }
  }
  requestSent_ = true;
  return true;
}

void CurlTransfer::takeHeaderLine(std::string_view line) {
  head_.add(line, status());
  monitored_->stirred();
  if (head_.hasForeignCoding() && request_.httpMethod != "HEAD") {
    throw urlError(NSURLErrorCannotParseResponse, "a transfer coding other than chunked");
  }
  if (kind_ != Kind::download || !head_.isComplete()) return;
  if (!std::exchange(bodyWasAnnounced_, true)) announceBody();
}

void CurlTransfer::announceBody() {
  arriving_ = Arrivals::shared().announce(
      request_.httpMethod, request_.url.absoluteString(), abandonment_,
      [this]() -> std::shared_ptr<ArrivingBody> {
        UniqueFd file(::fcntl(sink_->descriptor(), F_DUPFD_CLOEXEC, 0));
        if (!file) return nullptr;
        return std::make_shared<ArrivingBody>(
            ArrivingHead{status(), head_.length(), head_.entityTag()}, std::move(file), controls_);
      });
}

bool CurlTransfer::take(std::string_view data) {
  if (bytesReceived_ == 0) {
    curl_off_t expected = -1;
    curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
    if (expected >= 0) monitored_->expectToReceive(expected);
  }
  const bool isTaken = (!arriving_ || arriving_->mayTake()) && sink_->write(data);
  if (!isTaken) {
    waitsForReader_ = true;
    return false;
  }
  bytesReceived_ += static_cast<std::int64_t>(data.size());
  if (sink_->ignoresBody() && bytesReceived_ > kLongestIgnoredBody) {
    throw urlError(NSURLErrorCannotParseResponse, "the ignored body does not end");
  }
  monitored_->received(bytesReceived_);
  if (arriving_) arriving_->noteReached(bytesReceived_);
  return true;
}

std::size_t CurlTransfer::give(char* buffer, std::size_t capacity) {
  return uploadFile_->read(buffer, capacity);
}

void CurlTransfer::noteProgress(std::int64_t bytesSent) {
  if (uploadFile_) monitored_->sent(bytesSent);
  // Curl closes the connection before it tells of the end, so this is the last time to look.
  if (head_.leavesEndOpen()) endWasAnnounced_ = hasClosingAlert(easy_);
}

}  // namespace kestrowan
