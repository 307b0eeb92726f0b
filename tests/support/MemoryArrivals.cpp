#include "support/MemoryArrivals.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace kestrowan::test {

using replica::remote::ArrivingContents;

/// One file on its way. Used on the loop, but for what readers may call.
class MemoryArrivals::Delivery : public ArrivingContents,
                                 public std::enable_shared_from_this<Delivery> {
 public:
  Delivery(std::shared_ptr<MemoryArrivals> arrivals, std::string version, std::string all,
           const std::string& path, const Arriving& manner, Done done)
      : arrivals_(std::move(arrivals)),
        version_(std::move(version)),
        all_(std::move(all)),
        path_(path),
        file_(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)),
        manner_(manner),
        done_(std::move(done)) {}

  std::optional<std::int64_t> size() const override {
    if (manner_.withoutSize) return std::nullopt;
    return manner_.announced.value_or(static_cast<std::int64_t>(all_.size()));
  }
  bool hasVersion() const override { return !manner_.withoutVersion; }
  bool isOf(const NSData& version) const override {
    return manner_.withoutVersion || version == version_;
  }
  UniqueFd open() const override { return UniqueFd(::fcntl(file_.get(), F_DUPFD_CLOEXEC, 0)); }
  std::int64_t bytes() const override {
    std::lock_guard lock(mutex_);
    return static_cast<std::int64_t>(bytes_);
  }
  void whenReached(std::int64_t offset, std::function<void()> function) override {
    {
      std::lock_guard lock(mutex_);
      if (static_cast<std::int64_t>(bytes_) < offset) {
        awaited_.emplace_back(offset, std::move(function));
        return;
      }
    }
    function();
  }
  void setLimit(std::int64_t bytes) override {
    std::lock_guard lock(mutex_);
    limit_ = bytes;
  }
  void cancel() override {
    {
      std::lock_guard lock(arrivals_->mutex_);
      ++arrivals_->cancelled_;
    }
    arrivals_->loop_.post(
        [self = shared_from_this()] { self->end(NSError(NSURLErrorDomain, NSURLErrorCancelled)); });
  }

  void go() {
    if (hasEnded_) return;
    step();
    if (hasEnded_) return;
    arrivals_->loop_.postAfter(manner_.step, [self = shared_from_this()] { self->go(); });
  }

 private:
  bool isStalled() const { return manner_.stallAfter && bytes_ >= *manner_.stallAfter; }

  void step() {
    std::size_t from = 0;
    std::size_t to = 0;
    {
      std::lock_guard lock(mutex_);
      from = bytes_;
      to = std::min(all_.size(), from + manner_.piece);
      if (manner_.cutAfter) to = std::min(to, *manner_.cutAfter);
      if (manner_.stallAfter) to = std::min(to, *manner_.stallAfter);
      if (static_cast<std::int64_t>(from) >= limit_) to = from;
    }
    if (to > from) take(from, to);
    if (manner_.cutAfter && to >= *manner_.cutAfter) {
      end(NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost));
    } else if (to == all_.size()) {
      end(std::nullopt);
    } else if (isStalled() && !isTimed_) {
      isTimed_ = true;
      arrivals_->loop_.postAfter(std::chrono::minutes(1), [self = shared_from_this()] {
        self->end(NSError(NSURLErrorDomain, NSURLErrorTimedOut));
      });
    }
  }

  void take(std::size_t from, std::size_t to) {
    if (::pwrite(file_.get(), all_.data() + from, to - from, static_cast<off_t>(from)) < 0) {
      return end(NSError(NSURLErrorDomain, NSURLErrorCannotWriteToFile));
    }
    std::vector<std::function<void()>> reached;
    {
      std::lock_guard lock(mutex_);
      bytes_ = to;
      const auto far = std::partition(awaited_.begin(), awaited_.end(), [to](const auto& each) {
        return each.first > static_cast<std::int64_t>(to);
      });
      for (auto each = far; each != awaited_.end(); ++each) {
        reached.push_back(std::move(each->second));
      }
      awaited_.erase(far, awaited_.end());
    }
    {
      std::lock_guard lock(arrivals_->mutex_);
      arrivals_->delivered_ += to - from;
    }
    for (const auto& function : reached) function();
  }

  void end(const std::optional<NSError>& error) {
    if (std::exchange(hasEnded_, true)) return;
    if (error) ::unlink(path_.c_str());
    std::exchange(done_, nullptr)(error);
  }

  const std::shared_ptr<MemoryArrivals> arrivals_;
  const std::string version_;
  const std::string all_;
  const std::string path_;
  const UniqueFd file_;
  const Arriving manner_;
  Done done_;
  bool hasEnded_ = false;
  bool isTimed_ = false;
  mutable std::mutex mutex_;  // guards what follows
  std::size_t bytes_ = 0;
  std::int64_t limit_ = kNoLimit;
  std::vector<std::pair<std::int64_t, std::function<void()>>> awaited_;
};

std::shared_ptr<void> MemoryArrivals::watch(Begun begun) {
  std::lock_guard lock(mutex_);
  const auto place = watches_.insert(watches_.end(), {Abandonment::current(), std::move(begun)});
  return {this, [self = shared_from_this(), place](void*) {
            std::lock_guard relock(self->mutex_);
            self->watches_.erase(place);
          }};
}

void MemoryArrivals::deliver(const std::shared_ptr<Abandonment>& call, const std::string& version,
                             std::string bytes, const std::string& path, const Arriving& manner,
                             Done done) {
  const auto delivery = std::make_shared<Delivery>(shared_from_this(), version, std::move(bytes),
                                                   path, manner, std::move(done));
  {
    std::lock_guard lock(mutex_);
    for (const auto& watch : watches_) {
      if (watch.call == call) watch.begun(delivery);
    }
  }
  delivery->go();
}

std::size_t MemoryArrivals::delivered() const {
  std::lock_guard lock(mutex_);
  return delivered_;
}

std::size_t MemoryArrivals::cancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

}  // namespace kestrowan::test
