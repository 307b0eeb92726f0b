#include "platform/linux/CurlTransfer.h"

#include <utility>

#include "platform/linux/CurlError.h"
#include "platform/linux/CurlSocket.h"
#include "platform/linux/CurlTrust.h"

namespace kestrowan {

namespace {

/// A longer body that goes to no file is not waited for: it would be a million entries of a folder.
constexpr std::int64_t kLongestAnswer = std::int64_t{256} << 20;

CurlList checkedHeaderLines(const NSURLRequest& request, const HTTPHeaders& sessionHeaders) {
  checkRequest(request, sessionHeaders);
  return headerLines(sessionHeaders, request.headers);
}

}  // namespace

CurlTransfer::CurlTransfer(Kind kind, NSURLRequest request, const HTTPHeaders& sessionHeaders,
                           std::shared_ptr<CurlBodySink> sink, std::optional<NSURL> upload)
    : kind_(kind),
      request_(std::move(request)),
      headers_(checkedHeaderLines(request_, sessionHeaders)),
      sink_(std::move(sink)),
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
  idleTimer_.restart(Clock::now());
}

CurlTransfer::Verdict CurlTransfer::end(CURLcode code) noexcept {
  if (std::exchange(connectionWasClosed_, false)) {
    reason_[0] = '\0';
    curl_easy_setopt(easy_, CURLOPT_FRESH_CONNECT, 1L);
    return Verdict::runAgain;
  }
  monitored_.reset();
  uploadFile_.reset();
  try {
    if (handshake_->refused()) throw urlError(NSURLErrorCancelled, reason_);
    if (ownError_) throw *ownError_;
    if (code != CURLE_OK) throw urlErrorForCurl(code, requestSent_, reason_);
    finish();
  } catch (const NSError& error) {
    fail(error);
  }
  return Verdict::finished;
}

void CurlTransfer::finish() {
  long status = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  if (!head_.isComplete()) {
    throw urlError(NSURLErrorNetworkConnectionLost, "the head of the answer broke off");
  }
  // Anybody can cut a connection, but only the server can end its TLS.
  if (head_.leavesEndOpen() && request_.httpMethod != "HEAD" && !endWasAnnounced_) {
    throw urlError(NSURLErrorNetworkConnectionLost, "the end of the body was not announced");
  }
  sink_->finish(std::make_shared<NSHTTPURLResponse>(status));
}

void CurlTransfer::resume() {
  if (!std::exchange(waitsForReader_, false)) return;
  idleTimer_.restart(Clock::now());
  curl_easy_pause(easy_, CURLPAUSE_CONT);
}

bool CurlTransfer::isIdle(Clock::time_point now) {
  if (waitsForReader_) idleTimer_.restart(now);
  return idleTimer_.expired(socket_, now);
}

bool CurlTransfer::maySend() {
  // Curl comes here again when it wants to send the request a second time, because a reused
  // connection was closed before the first byte of the answer.
  if (requestSent_) return false;
  if (!madeConnection_) {
    socket_ = socketOf(easy_);
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
  long status = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  head_.add(line, status);
}

bool CurlTransfer::take(std::string_view data) {
  if (bytesReceived_ == 0) {
    curl_off_t expected = -1;
    curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
    if (expected >= 0) monitored_->expectToReceive(expected);
  }
  if (!sink_->write(data)) {
    waitsForReader_ = true;
    return false;
  }
  bytesReceived_ += static_cast<std::int64_t>(data.size());
  if (kind_ != Kind::download && bytesReceived_ > kLongestAnswer) {
    throw urlError(NSURLErrorCannotParseResponse, "the answer is too long");
  }
  monitored_->received(bytesReceived_);
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
