#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/base/GrowingLimit.h"
#include "platform/linux/CurlTransfer.h"
#include "platform/linux/CurlTrust.h"

namespace kestrowan {

/// How much a session does at a time. The defaults are what bench/network.py found best.
struct CurlLimits {
  /// Transfers, and so connections.
  std::size_t transfers = 8;
  /// Of which so many may move whole files; fewer than all, so that short requests pass them.
  std::size_t files = 6;
  /// So many transfers while answers are slow and others wait; of files as many more.
  std::size_t mostTransfers = 24;
};

/// Runs the transfers of one session on a thread of its own, which starts with the first of them.
///
/// Transfers beyond the limits wait in the order of submission, files apart from the others. The
/// limits grow while none of those that run comes to its end, and fall back afterwards. A place
/// that becomes free, however it does, goes to the next that waits before the thread sleeps. A
/// transfer that nothing waits for any more fails with `NSURLErrorCancelled`: one that waits is
/// never sent, one that runs is broken off. Want of memory fails the transfer that needs it, no
/// other. Shared between the session, the thread and running tasks. `submit`, `resume`,
/// `dropUnwanted` and `stop` may be called from every thread.
class CurlEngine : public std::enable_shared_from_this<CurlEngine> {
 public:
  CurlEngine(std::weak_ptr<NSURLSessionDelegate> delegate, CurlLimits limits);
  CurlEngine(const CurlEngine&) = delete;
  CurlEngine& operator=(const CurlEngine&) = delete;
  ~CurlEngine();

  /// See `CurlChallenger`; before the first `submit`.
  void setSession(std::weak_ptr<NSURLSession> session);
  /// Runs `transfer` once there is a place for it; fails it after `stop`.
  void submit(std::shared_ptr<CurlTransfer> transfer);
  /// Looks for transfers that nothing waits for any more.
  void dropUnwanted();
  /// Goes on with a transfer whose body had no room.
  void resume(std::shared_ptr<CurlTransfer> transfer);
  /// Fails all transfers with `NSURLErrorCancelled` and ends the thread; waits for its end unless
  /// called on it.
  void stop();

 private:
  // Lists, whose members are moved from one to the next without memory.
  using Transfers = std::list<std::shared_ptr<CurlTransfer>>;

  void startThread();
  void wake();
  void run() noexcept;
  bool takeOrders();
  void admit();
  void admitIntoPlaces();
  std::size_t waitingCount() const { return waitingRequests_.size() + waitingFiles_.size(); }
  void setConnections();
  bool admitFrom(Transfers& waiting);
  bool begin(CurlTransfer& transfer) noexcept;
  CURL* takeHandle();
  void giveBack(CURL* easy);
  void failUnwanted();
  bool reapFinished();
  bool failIdle();
  int millisecondsToNextCheck() const;
  Transfers::iterator leave(Transfers::iterator place);
  void cancelAll();

  CurlChallenger challenger_;
  const CurlLimits limits_;
  const NSError cancelled_;  // made while there is memory

  std::mutex mutex_;
  // Guarded by mutex_.
  Transfers submitted_;
  Transfers resumed_;
  bool stopping_ = false;
  bool someUnwanted_ = false;
  bool woken_ = false;
  std::thread thread_;
  CURLM* multi_ = nullptr;  // made before the thread starts, freed by it

  // The thread's own.
  Transfers waitingRequests_;
  Transfers waitingFiles_;
  Transfers running_;
  std::size_t runningFiles_ = 0;
  GrowingLimit places_;
  std::vector<CURL*> spareHandles_;  // has room for all that can be
};

}  // namespace kestrowan
