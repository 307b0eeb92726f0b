#include "platform/linux/CurlEngine.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <system_error>
#include <utility>

#include "platform/linux/CurlError.h"
#include "platform/linux/OpenSSLSetUp.h"

namespace kestrowan {

namespace {

/// Keeps signals, a closed connection's SIGPIPE above all, away from the thread that it starts.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
      sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

void initializeCurl() {
  if (!setUpOpenSSL()) throw urlErrorForCurl(CURLE_FAILED_INIT, false, {});
  static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (result != CURLE_OK) throw urlErrorForCurl(result, false, {});
}

CURLM* makeMulti() {
  initializeCurl();
  auto* multi = curl_multi_init();
  if (!multi) throw std::bad_alloc();
  curl_multi_setopt(multi, CURLMOPT_PIPELINING, CURLPIPE_NOTHING);
  return multi;
}

}  // namespace

CurlEngine::CurlEngine(std::weak_ptr<NSURLSessionDelegate> delegate, CurlLimits limits)
    : challenger_(std::move(delegate)),
      limits_(limits),
      cancelled_(urlError(NSURLErrorCancelled)),
      places_(limits.transfers, limits.mostTransfers) {
  spareHandles_.reserve(limits.mostTransfers);
}

CurlEngine::~CurlEngine() = default;

void CurlEngine::setSession(std::weak_ptr<NSURLSession> session) {
  challenger_.setSession(std::move(session));
}

void CurlEngine::submit(std::shared_ptr<CurlTransfer> transfer) {
  const auto abandonment = transfer->abandonment();
  {
    std::unique_lock lock(mutex_);
    if (stopping_) {
      lock.unlock();
      transfer->fail(cancelled_);
      return;
    }
    if (!multi_) startThread();
    submitted_.push_back(std::move(transfer));
    wake();
  }
  if (!abandonment) return;
  abandonment->whenDeclared([engine = weak_from_this()] {
    if (const auto living = engine.lock()) living->dropUnwanted();
  });
}

void CurlEngine::resume(std::shared_ptr<CurlTransfer> transfer) {
  std::lock_guard lock(mutex_);
  if (stopping_) return;
  resumed_.push_back(std::move(transfer));
  wake();
}

void CurlEngine::dropUnwanted() {
  std::lock_guard lock(mutex_);
  if (stopping_ || !multi_) return;
  someUnwanted_ = true;
  wake();
}

void CurlEngine::stop() {
  std::unique_lock lock(mutex_);
  stopping_ = true;
  if (!thread_.joinable()) return;
  auto thread = std::move(thread_);
  wake();
  lock.unlock();
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

void CurlEngine::startThread() {
  multi_ = makeMulti();
  setConnections();
  const SignalsBlocked blocked;
  try {
    thread_ = std::thread([self = shared_from_this()] { self->run(); });
  } catch (const std::system_error& error) {
    curl_multi_cleanup(std::exchange(multi_, nullptr));
    throw urlError(NSURLErrorUnknown, error.what());
  }
}

void CurlEngine::wake() {
  if (!std::exchange(woken_, true)) curl_multi_wakeup(multi_);
}

void CurlEngine::run() noexcept {
  while (takeOrders()) {
    admit();
    int stillRunning = 0;
    curl_multi_perform(multi_, &stillRunning);
    // Places that have become free are taken before waiting.
    const bool finished = reapFinished();
    const bool expired = failIdle();
    if (finished || expired) continue;
    curl_multi_poll(multi_, nullptr, 0, millisecondsToNextCheck(), nullptr);
  }
  cancelAll();
  freeOpenSSLOfThread();
}

bool CurlEngine::takeOrders() {
  Transfers submitted;
  Transfers resumed;
  bool someUnwanted = false;
  {
    std::lock_guard lock(mutex_);
    woken_ = false;
    if (stopping_) return false;
    submitted.swap(submitted_);
    resumed.swap(resumed_);
    someUnwanted = std::exchange(someUnwanted_, false);
  }
  while (!submitted.empty()) {
    auto& waiting = submitted.front()->movesFile() ? waitingFiles_ : waitingRequests_;
    waiting.splice(waiting.end(), submitted, submitted.begin());
  }
  if (someUnwanted) failUnwanted();
  for (const auto& transfer : resumed) {
    const bool isRunning = std::find(running_.begin(), running_.end(), transfer) != running_.end();
    if (isRunning) transfer->resume();
  }
  return true;
}

void CurlEngine::admit() {
  admitIntoPlaces();
  if (waitingCount() == 0) return;
  const auto before = places_.value();
  places_.grow(waitingCount(), CurlTransfer::Clock::now());
  if (places_.value() == before) return;
  setConnections();
  admitIntoPlaces();
}

void CurlEngine::admitIntoPlaces() {
  const auto placesForFiles = places_.value() - (limits_.transfers - limits_.files);
  // Files first: they cannot take all places, so neither kind keeps the other waiting for ever.
  while (running_.size() < places_.value() && runningFiles_ < placesForFiles &&
         admitFrom(waitingFiles_)) {
  }
  while (running_.size() < places_.value() && admitFrom(waitingRequests_)) {
  }
}

void CurlEngine::setConnections() {
  const auto connections = static_cast<long>(places_.value());
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, connections);
  curl_multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, connections);
}

bool CurlEngine::admitFrom(Transfers& waiting) {
  if (waiting.empty()) return false;
  places_.noteBegin(CurlTransfer::Clock::now());
  if (begin(*waiting.front())) {
    runningFiles_ += waiting.front()->movesFile() ? 1 : 0;
    running_.splice(running_.end(), waiting, waiting.begin());
  } else {
    waiting.pop_front();
  }
  return true;
}

/// Whether `transfer` runs now; it has failed otherwise.
bool CurlEngine::begin(CurlTransfer& transfer) noexcept {
  CURL* easy = nullptr;
  try {
    easy = takeHandle();
    transfer.prepare(easy, challenger_);
    const auto code = curl_multi_add_handle(multi_, easy);
    if (code == CURLM_OK) return true;
    throw urlError(NSURLErrorUnknown, curl_multi_strerror(code));
  } catch (const NSError& error) {
    transfer.fail(error);
  } catch (const std::bad_alloc&) {
    transfer.fail(outOfMemoryError());
  }
  if (easy) giveBack(easy);
  return false;
}

CURL* CurlEngine::takeHandle() {
  if (spareHandles_.empty()) {
    auto* easy = curl_easy_init();
    if (!easy) throw std::bad_alloc();
    return easy;
  }
  auto* easy = spareHandles_.back();
  spareHandles_.pop_back();
  return easy;
}

void CurlEngine::giveBack(CURL* easy) {
  curl_easy_reset(easy);
  spareHandles_.push_back(easy);
}

void CurlEngine::failUnwanted() {
  for (auto* waiting : {&waitingFiles_, &waitingRequests_}) {
    for (auto place = waiting->begin(); place != waiting->end();) {
      if ((*place)->isUnwanted()) {
        (*place)->fail(cancelled_);
        place = waiting->erase(place);
      } else {
        ++place;
      }
    }
  }
  for (auto place = running_.begin(); place != running_.end();) {
    const auto transfer = *place;
    if (transfer->isUnwanted()) {
      // No callback may follow the result.
      place = leave(place);
      transfer->fail(cancelled_);
    } else {
      ++place;
    }
  }
}

bool CurlEngine::reapFinished() {
  bool any = false;
  int left = 0;
  while (const auto* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    any = true;
    const auto code = message->data.result;
    auto* easy = message->easy_handle;
    const auto place = std::find_if(running_.begin(), running_.end(),
                                    [easy](const auto& each) { return each->easy() == easy; });
    const auto transfer = *place;
    if (transfer->end(code) == CurlTransfer::Verdict::finished) {
      leave(place);
      continue;
    }
    curl_multi_remove_handle(multi_, easy);
    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
      leave(place);
      transfer->fail(outOfMemoryError());
    }
  }
  return any;
}

/// Whether any was, so that there is a place now.
bool CurlEngine::failIdle() {
  const auto now = CurlTransfer::Clock::now();
  bool any = false;
  for (auto place = running_.begin(); place != running_.end();) {
    const auto transfer = *place;
    if (transfer->nextCheck() <= now && transfer->isIdle(now)) {
      // No callback may follow the result.
      curl_multi_remove_handle(multi_, transfer->easy());
      transfer->expire();
      place = leave(place);
      any = true;
    } else {
      ++place;
    }
  }
  return any;
}

int CurlEngine::millisecondsToNextCheck() const {
  constexpr auto kLongestWait = std::chrono::minutes(10);
  const auto now = CurlTransfer::Clock::now();
  auto wait = std::chrono::ceil<std::chrono::milliseconds>(kLongestWait);
  for (const auto& transfer : running_) {
    wait =
        std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(transfer->nextCheck() - now));
  }
  if (waitingCount() > 0 && places_.canGrow()) {
    wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(places_.growsAt() - now));
  }
  return static_cast<int>(std::max<std::int64_t>(wait.count(), 0));
}

/// The place behind it.
CurlEngine::Transfers::iterator CurlEngine::leave(Transfers::iterator place) {
  const auto transfer = *place;
  runningFiles_ -= transfer->movesFile() ? 1 : 0;
  curl_multi_remove_handle(multi_, transfer->easy());
  giveBack(transfer->easy());
  const auto behind = running_.erase(place);
  const auto before = places_.value();
  places_.noteEnd(running_.size(), waitingCount());
  if (places_.value() != before) setConnections();
  return behind;
}

void CurlEngine::cancelAll() {
  Transfers submitted;
  {
    std::lock_guard lock(mutex_);
    submitted.swap(submitted_);
  }
  while (!running_.empty()) {
    const auto transfer = running_.front();
    leave(running_.begin());
    transfer->fail(cancelled_);
  }
  for (auto* transfers : {&waitingFiles_, &waitingRequests_, &submitted}) {
    for (const auto& transfer : *transfers) transfer->fail(cancelled_);
    transfers->clear();
  }
  for (auto* easy : spareHandles_) curl_easy_cleanup(easy);
  curl_multi_cleanup(multi_);
}

}  // namespace kestrowan
