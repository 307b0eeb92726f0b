#include "platform/linux/CurlBodyPipe.h"

#include <utility>

#include "platform/base/Executor.h"

namespace kestrowan {

namespace {

constexpr std::size_t kPieceBytes = 64 * 1024;
constexpr std::size_t kMostBytes = 1024 * 1024;

}  // namespace

bool CurlBodyPipe::write(std::string_view data) {
  std::unique_lock lock(mutex_);
  if (gathered_.size() >= kMostBytes) {
    full_ = true;
    return false;
  }
  gathered_.append(data);
  if (isWorthTaking()) wake(lock);
  return true;
}

void CurlBodyPipe::finish(std::shared_ptr<const NSURLResponse> response) {
  std::unique_lock lock(mutex_);
  response_ = std::move(response);
  ended_ = true;
  wake(lock);
}

void CurlBodyPipe::fail(const NSError& error) noexcept {
  std::unique_lock lock(mutex_);
  error_ = std::make_exception_ptr(error);
  ended_ = true;
  wake(lock);
}

bool CurlBodyPipe::wait(std::coroutine_handle<> reader) {
  std::lock_guard lock(mutex_);
  if (isWorthTaking()) return false;
  reader_ = reader;
  return true;
}

CurlBodyPipe::Taken CurlBodyPipe::take(std::string& piece) {
  piece.clear();
  std::lock_guard lock(mutex_);
  if (auto error = std::exchange(error_, nullptr)) std::rethrow_exception(std::move(error));
  piece.swap(gathered_);
  return {std::exchange(full_, false), ended_};
}

bool CurlBodyPipe::isWorthTaking() const {
  return ended_ || gathered_.size() >= kPieceBytes;
}

void CurlBodyPipe::wake(std::unique_lock<std::mutex>& lock) noexcept {
  auto reader = std::exchange(reader_, nullptr);
  lock.unlock();
  if (reader) Executor::shared().resumeLater(reader);
}

}  // namespace kestrowan
