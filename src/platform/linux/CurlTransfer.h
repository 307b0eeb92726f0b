#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/base/Abandonment.h"
#include "platform/linux/CurlBodySink.h"
#include "platform/linux/CurlIdleTimer.h"
#include "platform/linux/CurlRequest.h"
#include "platform/linux/CurlResponseHead.h"
#include "platform/linux/CurlTrust.h"
#include "platform/linux/CurlUploadFile.h"
#include "platform/network/ArrivingBody.h"
#include "platform/network/NSURLRequest.h"
#include "platform/network/ReceivedBody.h"
#include "platform/network/TransferMonitor.h"

namespace kestrowan {

/// One request on its way through curl. Shared between the engine and the task that awaits the
/// result; everything but the constructor, `setControls`, `setBody`, `movesFile`, `abandonment`,
/// `giveUp`, `isUnwanted` and, before it runs, `fail` belongs to the transfer thread.
class CurlTransfer {
 public:
  using Clock = CurlIdleTimer::Clock;

  enum class Kind { data, download, upload };
  enum class Verdict { finished, runAgain };

  /// Throws `NSURLErrorBadURL` for a request that cannot be sent. `abandonment` is that of the task
  /// that awaits the result, if it has one. `upload` is the file to send.
  CurlTransfer(Kind kind, NSURLRequest request, const HTTPHeaders& sessionHeaders,
               std::shared_ptr<CurlBodySink> sink, std::shared_ptr<Abandonment> abandonment,
               std::optional<NSURL> upload = std::nullopt);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  /// What readers of the body can have done while it arrives; before the transfer is submitted.
  void setControls(ArrivingBody::Controls controls) { controls_ = std::move(controls); }

  /// What its reader finds out about the body; before the transfer is submitted.
  void setBody(std::shared_ptr<const ReceivedBody> body) { body_ = std::move(body); }

  /// Whether a whole file is moved, which may take long.
  bool movesFile() const { return kind_ != Kind::data; }
  /// May be null.
  const std::shared_ptr<Abandonment>& abandonment() const { return abandonment_; }
  /// The task will not take the result.
  void giveUp() noexcept { givenUp_ = true; }
  /// Whether nothing waits for the result any more: the request is not sent then.
  bool isUnwanted() const noexcept {
    return givenUp_ || (abandonment_ && abandonment_->isDeclared());
  }

  /// Opens the files and makes `easy`, freshly reset, ready to run. Throws `NSError` and
  /// `std::bad_alloc`.
  void prepare(CURL* easy, const CurlChallenger& challenger);
  /// The handle given to `prepare`; null before.
  CURL* easy() const { return easy_; }
  /// Curl ended with `code`: hands out the result, or asks for another run of the same handle
  /// when the connection had been closed before a byte of the request was sent.
  Verdict end(CURLcode code) noexcept;
  /// Hands out the result of a transfer that was stopped because it is idle.
  void expire() noexcept { conclude(CURLE_OPERATION_TIMEDOUT); }
  /// Hands out `error` as the result.
  void fail(const NSError& error) noexcept { sink_->fail(error); }
  /// The reader of the body has made room.
  void resume();

  /// When `isIdle` wants to be asked again.
  Clock::time_point nextCheck() const { return idleTimer_.nextCheck(); }
  /// Whether no byte has moved for the request's time-out.
  bool isIdle(Clock::time_point now);

 private:
  /// What curl calls; see CurlTransferSetup.cpp.
  struct Callbacks;

  void setOptions();
  void setMethod();
  long status() const;
  void conclude(CURLcode code) noexcept;
  void list(std::int64_t errorCode) const;
  std::int64_t bytesSent() const;
  bool countsByStatus() const;
  void requireWholeAnswer() const;

  /// Whether a connection may be made: only for a request that has not been sent.
  bool mayConnect() const { return !requestSent_; }
  /// Whether the request may be sent on the connection that curl has chosen.
  bool maySend();
  void takeHeaderLine(std::string_view line);
  /// The head is whole: lets the body be read while it arrives.
  void announceBody();
  /// Takes all of the body's next piece, or nothing of it.
  bool take(std::string_view data);
  std::size_t give(char* buffer, std::size_t capacity);
  void noteProgress(std::int64_t bytesSent);
  void stopWith(const NSError& error) { ownError_ = error; }

  const Kind kind_;
  const NSURLRequest request_;
  const CurlList headers_;
  const std::shared_ptr<CurlBodySink> sink_;
  const std::shared_ptr<Abandonment> abandonment_;
  std::atomic<bool> givenUp_ = false;
  const std::optional<NSURL> uploadURL_;
  std::optional<CurlUploadFile> uploadFile_;
  std::shared_ptr<const ReceivedBody> body_;  // null for a body that nothing reads
  ArrivingBody::Controls controls_;
  std::shared_ptr<ArrivingBody> arriving_;  // null while nothing reads the body before its end
  std::optional<TransferMonitor::Entry> monitored_;
  std::optional<CurlHandshake> handshake_;
  CurlResponseHead head_;
  CurlIdleTimer idleTimer_;
  Clock::time_point begunAt_;
  CURL* easy_ = nullptr;
  char reason_[CURL_ERROR_SIZE] = {};

  int socket_ = -1;
  bool madeConnection_ = false;
  bool requestSent_ = false;
  bool connectionWasClosed_ = false;
  bool endWasAnnounced_ = false;
  bool bodyWasAnnounced_ = false;
  bool waitsForReader_ = false;
  std::uint64_t bytesMovedBefore_ = 0;  // on a connection that is used again
  std::int64_t bytesReceived_ = 0;
  std::optional<NSError> ownError_;  // why a callback stopped the transfer
};

}  // namespace kestrowan
