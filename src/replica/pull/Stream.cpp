#include "replica/pull/Stream.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>
#include <vector>

#include "platform/base/Threads.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::replica::pull {

using remote::ArrivingContents;

namespace {

/// What is lacking is fetched all the same when it is no more than this, or than one part of all in
/// so many.
constexpr std::int64_t kLittle = 4 << 20;
constexpr std::int64_t kLittlePart = 4;

}  // namespace

Stream::Stream(async::Loop& loop, model::Version version, model::Content number, std::int64_t size,
               std::function<void()> unread)
    : loop_(loop),
      version_(std::move(version)),
      number_(number),
      size_(size),
      unread_(std::move(unread)) {}

Stream::Reader Stream::reader() {
  auto self = shared_from_this();
  auto* const pointer = self.get();
  Reader reader(pointer, [self = std::move(self)](Stream*) { self->removeReader(); });
  addReader();
  return reader;
}

void Stream::addReader() {
  std::uint64_t turn = 0;
  {
    std::lock_guard lock(mutex_);
    if (++readers_ > 1 || isWhole_ || hasFailed_) return;
    turn = ++turn_;
  }
  pace();
  loop_.postAfter(kPeekTime, [weak = weak_from_this(), turn] {
    if (const auto self = weak.lock()) self->readLong(turn);
  });
}

void Stream::removeReader() {
  std::uint64_t turn = 0;
  {
    std::lock_guard lock(mutex_);
    if (--readers_ > 0 || isWhole_ || hasFailed_) return;
    turn = ++turn_;
  }
  guarded("the end of reading", [&] {
    pace();
    loop_.postAfter(kUnreadTime, [weak = weak_from_this(), turn] {
      if (const auto self = weak.lock()) self->unreadLong(turn);
    });
  });
}

/// A program that keeps a file open will read on.
void Stream::readLong(std::uint64_t turn) {
  {
    std::lock_guard lock(mutex_);
    if (turn != turn_) return;
    asked_ = std::max(asked_, std::min(kPeek, size_));
  }
  pace();
}

void Stream::unreadLong(std::uint64_t turn) {
  {
    std::lock_guard lock(mutex_);
    if (turn != turn_ || isWhole_ || hasFailed_) return;
  }
  unread_();
}

std::optional<Stream::Part> Stream::part(std::int64_t offset, std::size_t size) const {
  std::lock_guard lock(mutex_);
  const auto left = static_cast<std::uint64_t>(std::max<std::int64_t>(size_ - offset, 0));
  const auto count = std::min<std::uint64_t>(size, left);
  if (!isWhole_) {
    if (hasFailed_) throw posixError(EIO);
    const std::int64_t end = std::min(offset + static_cast<std::int64_t>(count), size_);
    if (!file_ || bytes() < end) return std::nullopt;
  }
  return Part{file_, static_cast<std::size_t>(count)};
}

Task<void> Stream::arrival(std::shared_ptr<Stream> stream, std::int64_t end) {
  const std::int64_t offset = std::min(end, stream->size_);
  auto waiter = std::make_shared<OneShot<void>>(stream->loop_);
  {
    std::lock_guard lock(stream->mutex_);
    if (stream->isWhole_) co_return;
    if (stream->hasFailed_) throw posixError(EIO);
    stream->asked_ = std::max(stream->asked_, offset);
    stream->waiters_.emplace(offset, waiter);
  }
  stream->pace();
  stream->await();
  auto arrived = OneShot<void>::result(std::move(waiter));
  co_await std::move(arrived);
}

std::size_t Stream::waiting() const {
  std::lock_guard lock(mutex_);
  return waiters_.size();
}

void Stream::stir() {
  Waiters waiters;
  {
    std::lock_guard lock(mutex_);
    waiters.swap(waiters_);
  }
  for (const auto& waiter : waiters) waiter.second->resolve();
}

bool Stream::goOn(const std::shared_ptr<ArrivingContents>& contents) {
  auto file = std::make_shared<const UniqueFd>(contents->open());
  if (!*file) return false;
  {
    std::lock_guard lock(mutex_);
    contents_ = contents;
    file_ = std::move(file);
    awaited_ = 0;
  }
  pace();
  await();
  return true;
}

void Stream::pause() {
  std::lock_guard lock(mutex_);
  if (!contents_) return;
  bytes_ = contents_->bytes();
  contents_.reset();
}

void Stream::finish() {
  {
    std::lock_guard lock(mutex_);
    if (hasFailed_ || bytes() != size_) return;
    isWhole_ = true;
  }
  stir();
}

void Stream::fail() {
  Waiters waiters;
  {
    std::lock_guard lock(mutex_);
    if (isWhole_) return;
    hasFailed_ = true;
    waiters.swap(waiters_);
  }
  for (const auto& waiter : waiters) {
    waiter.second->reject(std::make_exception_ptr(posixError(EIO)));
  }
}

void Stream::hurry() {
  {
    std::lock_guard lock(mutex_);
    isHurried_ = true;
  }
  pace();
}

bool Stream::isWhole() const {
  std::lock_guard lock(mutex_);
  return isWhole_;
}

bool Stream::hasFailed() const {
  std::lock_guard lock(mutex_);
  return hasFailed_;
}

bool Stream::isUnread() const {
  std::lock_guard lock(mutex_);
  return readers_ == 0;
}

bool Stream::isNearlyWhole() const {
  std::lock_guard lock(mutex_);
  return lacksLittle();
}

bool Stream::lacksLittle() const {
  const std::int64_t lacking = size_ - bytes();
  return lacking <= std::max(kLittle, size_ / kLittlePart);
}

/// How far the contents may come now.
std::int64_t Stream::limit() const {
  if (isHurried_) return ArrivingContents::kNoLimit;
  if (readers_ == 0) return lacksLittle() ? ArrivingContents::kNoLimit : 0;
  return asked_ >= std::min(kPeek, size_) ? ArrivingContents::kNoLimit : asked_ + kAhead;
}

void Stream::pace() {
  std::shared_ptr<ArrivingContents> contents;
  std::int64_t allowed = 0;
  {
    std::lock_guard lock(mutex_);
    if (!contents_) return;
    contents = contents_;
    allowed = limit();
  }
  contents->setLimit(allowed);
}

/// Has the contents tell when the nearest offset is reached for which a reader waits.
void Stream::await() {
  std::shared_ptr<ArrivingContents> contents;
  std::int64_t offset = 0;
  {
    std::lock_guard lock(mutex_);
    if (!contents_ || waiters_.empty()) return;
    offset = waiters_.begin()->first;
    if (awaited_ != 0 && awaited_ <= offset) return;
    awaited_ = offset;
    contents = contents_;
  }
  contents->whenReached(offset, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->noteReached();
  });
}

void Stream::noteReached() {
  std::vector<std::shared_ptr<OneShot<void>>> reached;
  {
    std::lock_guard lock(mutex_);
    awaited_ = 0;
    const auto behind = waiters_.upper_bound(bytes());
    for (auto each = waiters_.begin(); each != behind; ++each) {
      reached.push_back(std::move(each->second));
    }
    waiters_.erase(waiters_.begin(), behind);
  }
  for (const auto& waiter : reached) waiter->resolve();
  await();
}

}  // namespace kestrowan::replica::pull
