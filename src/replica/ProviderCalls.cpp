#include "replica/ProviderCalls.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "async/WithTimeout.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"
#include "replica/NameRules.h"

namespace kestrowan::replica {

namespace {

/// A request about metadata that takes longer has failed. Transfers have the transport's limit.
constexpr std::chrono::milliseconds kMetadataLimit{90000};

constexpr std::string_view kFirstPage = "NSFileProviderInitialPageSortedByName";

const NSError& stoppedError() {
  static const NSError error(NSURLErrorDomain, NSURLErrorCancelled);
  return error;
}

std::exception_ptr failure(const NSError& error) {
  return std::make_exception_ptr(error);
}

/// The outcome of a call that is not made.
NSError refusal(std::string_view call, const NSFileProviderItemIdentifier& identifier) {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  log.error("%{public}s was not asked for: no item can be %{public}s", {call, identifier});
  return posixError(EIO);
}

struct Page {
  std::vector<NSFileProviderItemPtr> items;
  std::optional<NSFileProviderPage> next;
};

/// Gathers one page for a pending call, and keeps the enumerator until then.
class PageObserver : public NSFileProviderEnumerationObserver {
 public:
  PageObserver(std::shared_ptr<OneShot<Page>> call,
               std::shared_ptr<NSFileProviderEnumerator> enumerator)
      : call_(std::move(call)), enumerator_(std::move(enumerator)) {}

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    if (page_.items.empty()) {
      page_.items = std::move(items);
    } else {
      page_.items.insert(page_.items.end(), items.begin(), items.end());
    }
  }
  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) override {
    page_.next = std::move(nextPage);
    call_->resolve(std::move(page_));
  }
  void finishEnumeratingWithError(const NSError& error) override { call_->reject(failure(error)); }

 private:
  const std::shared_ptr<OneShot<Page>> call_;
  const std::shared_ptr<NSFileProviderEnumerator> enumerator_;
  Page page_;
};

/// Answers a write for a pending call.
WriteCompletion written(std::shared_ptr<OneShot<WrittenItem>> call) {
  return [call = std::move(call)](NSFileProviderItemPtr item, NSFileProviderItemFields remaining,
                                  bool fetchAgain, const std::optional<NSError>& error) {
    if (error) {
      call->reject(failure(*error));
    } else {
      call->resolve(WrittenItem{std::move(item), remaining, fetchAgain});
    }
  };
}

/// The call as the provider gets it: when the provider lets go of it unanswered, it is not known
/// what became of the request.
template <typename T>
std::shared_ptr<OneShot<T>> asProviderHoldsIt(std::shared_ptr<OneShot<T>> call) {
  auto* const pointer = call.get();
  return std::shared_ptr<OneShot<T>>(pointer, [call = std::move(call)](OneShot<T>*) {
    untilThereIsMemory(
        [&] { call->reject(failure(NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost))); });
  });
}

std::optional<NSURL> fileURL(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  return NSURL::fileURLWithPath(*path);
}

}  // namespace

class ProviderCalls::Slot {
 public:
  explicit Slot(Slots& slots) : slots_(slots) {}
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  ~Slot() { slots_.give(); }

 private:
  Slots& slots_;
};

void ProviderCalls::Slots::give() {
  if (waiting_.empty()) {
    ++free_;
    return;
  }
  auto next = waiting_.front();
  waiting_.pop_front();
  loop_.post([next] { next.resume(); });
}

ProviderCalls::ProviderCalls(async::Loop& loop, Limits limits, IdentifierForm identifiers)
    : loop_(loop),
      identifiers_(std::move(identifiers)),
      metadata_(loop, limits.metadata),
      downloads_(loop, limits.downloads),
      uploads_(loop, limits.uploads) {}

bool ProviderCalls::isPlace(const NSFileProviderItem& item) const {
  return identifiers_.isAskable(item.parentItemIdentifier()) && isValidName(item.filename());
}

void ProviderCalls::setProvider(Provider provider) {
  Provider before;
  {
    std::lock_guard lock(mutex_);
    before = std::exchange(provider_, std::move(provider));
  }
  if (before) before->invalidate();
}

bool ProviderCalls::hasProvider() const {
  std::lock_guard lock(mutex_);
  return provider_ && !stopped_;
}

void ProviderCalls::stop() {
  std::set<std::weak_ptr<PendingResult>, std::owner_less<>> calls;
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    calls.swap(calls_);
  }
  for (const auto& pending : calls) {
    if (auto call = pending.lock()) call->abandon(failure(stoppedError()));
  }
  setProvider(nullptr);
}

void ProviderCalls::enroll(const std::shared_ptr<PendingResult>& call) {
  std::lock_guard lock(mutex_);
  if (stopped_) {
    call->abandon(failure(stoppedError()));
    return;
  }
  std::erase_if(calls_, [](const auto& pending) { return pending.expired(); });
  calls_.insert(call);
}

template <typename T, typename Make>
Task<Outcome<T>> ProviderCalls::call(Slots& slots, std::optional<std::chrono::milliseconds> limit,
                                     Make make) {
  co_await slots.take();
  const Slot slot(slots);
  Provider provider;
  {
    std::lock_guard lock(mutex_);
    if (stopped_) co_return stoppedError();
    provider = provider_;
  }
  if (!provider) co_return NSFileProviderError(NSFileProviderErrorCode::notAuthenticated);

  const auto abandonment = std::make_shared<Abandonment>();
  auto pending = std::make_shared<OneShot<T>>(loop_, abandonment);
  enroll(pending);
  try {
    const AbandonmentScope scope(abandonment);
    make(*provider, asProviderHoldsIt(pending));
  } catch (...) {
    pending->reject(std::current_exception());
  }
  try {
    if (!limit) {
      auto result = OneShot<T>::result(std::move(pending));
      co_return co_await std::move(result);
    }
    auto result = async::withTimeout(
        loop_, *limit, failure(NSError(NSURLErrorDomain, NSURLErrorTimedOut)), std::move(pending));
    co_return co_await std::move(result);
  } catch (...) {
    co_return caughtError();
  }
}

Task<Outcome<std::vector<NSFileProviderItemPtr>>> ProviderCalls::list(
    NSFileProviderItemIdentifier container) {
  if (!identifiers_.isAskable(container)) co_return refusal("a listing", container);
  auto first = co_await listOnce(container);
  const bool again =
      !first.succeeded() &&
      first.error().is(NSFileProviderErrorDomain,
                       static_cast<std::int64_t>(NSFileProviderErrorCode::syncAnchorExpired));
  if (!again) co_return first;
  co_return co_await listOnce(container);
}

Task<Outcome<std::vector<NSFileProviderItemPtr>>> ProviderCalls::listOnce(
    NSFileProviderItemIdentifier container) {
  std::optional<NSFileProviderPage> page = NSFileProviderPage(kFirstPage);
  std::vector<NSFileProviderItemPtr> items;
  while (page) {
    auto make = [container, from = *page](NSFileProviderReplicatedExtension& provider,
                                          const std::shared_ptr<OneShot<Page>>& pending) {
      auto enumerator = provider.enumerator(container, {});
      enumerator->enumerateItems(std::make_shared<PageObserver>(pending, enumerator), from);
    };
    auto outcome = co_await call<Page>(metadata_, kMetadataLimit, std::move(make));
    if (!outcome.succeeded()) co_return outcome.error();
    auto& read = outcome.value();
    if (items.empty()) {
      items = std::move(read.items);
    } else {
      items.insert(items.end(), read.items.begin(), read.items.end());
    }
    page = std::move(read.next);
  }
  co_return items;
}

Task<Outcome<NSFileProviderItemPtr>> ProviderCalls::item(NSFileProviderItemIdentifier identifier) {
  if (!identifiers_.isAskable(identifier)) co_return refusal("an item", identifier);
  auto make = [identifier](NSFileProviderReplicatedExtension& provider,
                           const std::shared_ptr<OneShot<NSFileProviderItemPtr>>& pending) {
    provider.item(
        identifier, {}, [pending](NSFileProviderItemPtr item, const std::optional<NSError>& error) {
          if (error || !item) {
            pending->reject(
                failure(error.value_or(NSFileProviderError(NSFileProviderErrorCode::noSuchItem))));
          } else {
            pending->resolve(std::move(item));
          }
        });
  };
  co_return co_await call<NSFileProviderItemPtr>(metadata_, kMetadataLimit, std::move(make));
}

Task<Outcome<FetchedFile>> ProviderCalls::fetch(NSFileProviderItemIdentifier identifier) {
  if (!identifiers_.isItem(identifier)) co_return refusal("a file", identifier);
  auto make = [identifier](NSFileProviderReplicatedExtension& provider,
                           const std::shared_ptr<OneShot<FetchedFile>>& pending) {
    provider.fetchContents(
        identifier, std::nullopt, {},
        [pending](const std::optional<NSURL>& url, NSFileProviderItemPtr item,
                  const std::optional<NSError>& error) {
          if (error || !url || !item) {
            pending->reject(
                failure(error.value_or(NSFileProviderError(NSFileProviderErrorCode::noSuchItem))));
          } else if (!pending->resolve(FetchedFile{url->path(), std::move(item)})) {
            // Nobody waits any more.
            ::unlink(url->path().c_str());
          }
        });
  };
  co_return co_await call<FetchedFile>(downloads_, std::nullopt, std::move(make));
}

Task<Outcome<WrittenItem>> ProviderCalls::create(NSFileProviderItemPtr basedOnTemplate,
                                                 NSFileProviderItemFields fields,
                                                 std::optional<std::string> contents,
                                                 NSFileProviderCreateItemOptions options) {
  if (!isPlace(*basedOnTemplate)) {
    co_return refusal("a new item", basedOnTemplate->parentItemIdentifier());
  }
  Slots& slots = contents ? uploads_ : metadata_;
  const std::optional<std::chrono::milliseconds> limit =
      contents ? std::nullopt : std::optional(kMetadataLimit);
  auto make = [basedOnTemplate, fields, url = fileURL(contents), options](
                  NSFileProviderReplicatedExtension& provider,
                  const std::shared_ptr<OneShot<WrittenItem>>& pending) {
    provider.createItem(basedOnTemplate, fields, url, options, {}, written(pending));
  };
  co_return co_await call<WrittenItem>(slots, limit, std::move(make));
}

Task<Outcome<WrittenItem>> ProviderCalls::modify(NSFileProviderItemPtr item,
                                                 NSFileProviderItemVersion baseVersion,
                                                 NSFileProviderItemFields changedFields,
                                                 std::optional<std::string> contents) {
  if (!identifiers_.isItem(item->itemIdentifier()) || !isPlace(*item)) {
    co_return refusal("a change", item->itemIdentifier());
  }
  Slots& slots = contents ? uploads_ : metadata_;
  const std::optional<std::chrono::milliseconds> limit =
      contents ? std::nullopt : std::optional(kMetadataLimit);
  auto make = [item, baseVersion, changedFields, url = fileURL(contents)](
                  NSFileProviderReplicatedExtension& provider,
                  const std::shared_ptr<OneShot<WrittenItem>>& pending) {
    provider.modifyItem(item, baseVersion, changedFields, url, 0, {}, written(pending));
  };
  co_return co_await call<WrittenItem>(slots, limit, std::move(make));
}

Task<Outcome<Done>> ProviderCalls::remove(NSFileProviderItemIdentifier identifier,
                                          NSFileProviderItemVersion baseVersion, bool recursive) {
  if (!identifiers_.isItem(identifier)) co_return refusal("a removal", identifier);
  auto make = [identifier, baseVersion, recursive](NSFileProviderReplicatedExtension& provider,
                                                   const std::shared_ptr<OneShot<Done>>& pending) {
    provider.deleteItem(identifier, baseVersion,
                        recursive ? NSFileProviderDeleteItemOption::recursive : 0, {},
                        [pending](const std::optional<NSError>& error) {
                          if (error) {
                            pending->reject(failure(*error));
                          } else {
                            pending->resolve(Done{});
                          }
                        });
  };
  co_return co_await call<Done>(metadata_, kMetadataLimit, std::move(make));
}

}  // namespace kestrowan::replica
