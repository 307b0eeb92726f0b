#pragma once

#include <curl/curl.h>

#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/linux/CurlTransfer.h"
#include "platform/linux/CurlTrust.h"

namespace kestrowan {

/// Runs the transfers of one session on a thread of its own, which starts with the first of them.
///
/// At most `kConnections` transfers run at a time, the others wait in the order of submission;
/// files never take all places, so that short requests pass them. Shared between the session,
/// the thread and running tasks. `submit`, `resume` and `stop` may be called from every thread.
class CurlEngine : public std::enable_shared_from_this<CurlEngine> {
 public:
  explicit CurlEngine(std::weak_ptr<NSURLSessionDelegate> delegate);
  CurlEngine(const CurlEngine&) = delete;
  CurlEngine& operator=(const CurlEngine&) = delete;
  ~CurlEngine();

  /// See `CurlChallenger`; before the first `submit`.
  void setSession(std::weak_ptr<NSURLSession> session);
  /// Runs `transfer` once there is a place for it; fails it after `stop`.
  void submit(std::shared_ptr<CurlTransfer> transfer);
  /// Goes on with a transfer whose body had no room.
  void resume(std::shared_ptr<CurlTransfer> transfer);
  /// Fails all transfers with `NSURLErrorCancelled` and ends the thread; waits for its end unless
  /// called on it.
  void stop();

 private:
  using Transfers = std::deque<std::shared_ptr<CurlTransfer>>;

  void startThread();
  void wake();
  void run() noexcept;
  bool takeOrders();
  void admit();
  bool admitFrom(Transfers& waiting);
  void begin(std::shared_ptr<CurlTransfer> transfer);
  bool reapFinished();
  void failIdle();
  int millisecondsToNextCheck() const;
  void leave(std::size_t index);
  void cancelAll();

  CurlChallenger challenger_;

  std::mutex mutex_;
  // Guarded by mutex_.
  Transfers submitted_;
  Transfers resumed_;
  bool stopping_ = false;
  bool woken_ = false;
  std::thread thread_;
  CURLM* multi_ = nullptr;  // made before the thread starts, freed by it

  // The thread's own.
  Transfers waitingRequests_;
  Transfers waitingFiles_;
  std::vector<std::shared_ptr<CurlTransfer>> running_;
  std::size_t runningFiles_ = 0;
  std::vector<CURL*> spareHandles_;
};

}  // namespace kestrowan
