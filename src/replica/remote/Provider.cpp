#include "replica/remote/Provider.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "async/WithTimeout.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"
#include "replica/remote/AnswerTable.h"
#include "replica/remote/ErrorClass.h"
#include "replica/remote/ValidName.h"

namespace kestrowan::replica::remote {

namespace {

/// A request about metadata that takes longer has failed. Transfers have the transport's limit.
constexpr std::chrono::milliseconds kMetadataLimit{90000};

constexpr std::string_view kFirstPage = "NSFileProviderInitialPageSortedByName";

NSError stoppedError() {
  return {NSURLErrorDomain, NSURLErrorCancelled};
}

std::exception_ptr failure(const NSError& error) {
  return std::make_exception_ptr(error);
}

/// For a call that is not made.
[[noreturn]] void refuse(std::string_view call, const NSFileProviderItemIdentifier& identifier) {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  log.error("%{public}s was not asked for: no item can be %{public}s", {call, identifier});
  throw posixError(EIO);
}

/// The error of an answer that has neither what was asked for nor an error.
NSError orNoSuchItem(const std::optional<NSError>& error) {
  return error.value_or(NSFileProviderError(NSFileProviderErrorCode::noSuchItem));
}

struct Page {
  std::vector<NSFileProviderItemPtr> items;
  std::optional<NSFileProviderPage> next;
};

/// Gathers one page, and keeps the enumerator until then.
class PageObserver : public NSFileProviderEnumerationObserver {
 public:
  PageObserver(std::shared_ptr<OneShot<Page>> result,
               std::shared_ptr<NSFileProviderEnumerator> enumerator)
      : result_(std::move(result)), enumerator_(std::move(enumerator)) {}

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    if (page_.items.empty()) {
      page_.items = std::move(items);
    } else {
      page_.items.insert(page_.items.end(), items.begin(), items.end());
    }
  }
  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) override {
    page_.next = std::move(nextPage);
    result_->resolve(std::move(page_));
  }
  void finishEnumeratingWithError(const NSError& error) override {
    result_->reject(failure(error));
  }

 private:
  const std::shared_ptr<OneShot<Page>> result_;
  const std::shared_ptr<NSFileProviderEnumerator> enumerator_;
  Page page_;
};

WriteCompletion written(std::shared_ptr<OneShot<WrittenItem>> result) {
  return
      [result = std::move(result)](NSFileProviderItemPtr item, NSFileProviderItemFields remaining,
                                   bool fetchAgain, const std::optional<NSError>& error) {
        if (error) {
          result->reject(failure(*error));
        } else {
          result->resolve({std::move(item), remaining, fetchAgain});
        }
      };
}

/// The result as the extension gets it: when the extension lets go of it unanswered, it is not
/// known what became of the request.
template <typename T>
std::shared_ptr<OneShot<T>> asExtensionHoldsIt(std::shared_ptr<OneShot<T>> result) {
  auto* const pointer = result.get();
  return std::shared_ptr<OneShot<T>>(pointer, [result = std::move(result)](OneShot<T>*) {
    untilThereIsMemory([&] {
      result->reject(failure({NSURLErrorDomain, NSURLErrorNetworkConnectionLost}));
    });
  });
}

/// The error, or what the server said when that tells more.
NSError told(const NSError& error, const CallAnswers* answers) {
  if (!answers || errorClass(error) != ErrorClass::ambiguous) return error;
  const auto answer = answers->last();
  const bool isNo = answer && (answer->httpStatus < 200 || answer->httpStatus > 299);
  return isNo ? AnswerTable::error(*answer) : error;
}

std::optional<NSURL> fileURL(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  return NSURL::fileURLWithPath(*path);
}

std::optional<std::chrono::milliseconds> limitOf(const std::optional<std::string>& contents) {
  if (contents) return std::nullopt;
  return kMetadataLimit;
}

}  // namespace

Provider::Provider(async::Loop& loop, Limits limits, IdentifierForm identifiers,
                   AnswerWatch watchAnswers)
    : loop_(loop),
      identifiers_(std::move(identifiers)),
      watchAnswers_(std::move(watchAnswers)),
      metadata_(loop, limits.metadata),
      downloads_(loop, limits.downloads),
      smallDownloads_(loop, limits.downloads, std::max(limits.downloads, kMostSmallFiles)),
      uploads_(loop, limits.uploads) {}

void Provider::requireAskable(std::string_view call,
                              const NSFileProviderItemIdentifier& identifier) const {
  if (!identifiers_.isAskable(identifier)) refuse(call, identifier);
}

void Provider::requireItem(std::string_view call,
                           const NSFileProviderItemIdentifier& identifier) const {
  if (!identifiers_.isItem(identifier)) refuse(call, identifier);
}

void Provider::requirePlace(std::string_view call, const NSFileProviderItem& item) const {
  if (!identifiers_.isAskable(item.parentItemIdentifier()) || !isValidName(item.filename())) {
    refuse(call, item.parentItemIdentifier());
  }
}

void Provider::setExtension(Extension extension) {
  Extension before;
  {
    std::lock_guard lock(mutex_);
    before = std::exchange(extension_, std::move(extension));
  }
  if (before) before->invalidate();
}

Provider::Extension Provider::requireExtension() const {
  std::lock_guard lock(mutex_);
  if (stopped_) throw stoppedError();
  if (!extension_) throw NSFileProviderError(NSFileProviderErrorCode::notAuthenticated);
  return extension_;
}

void Provider::stop() {
  std::set<std::weak_ptr<PendingResult>, std::owner_less<>> calls;
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    calls.swap(calls_);
  }
  for (const auto& pending : calls) {
    if (const auto call = pending.lock()) call->abandon(failure(stoppedError()));
  }
  setExtension(nullptr);
}

void Provider::enroll(const std::shared_ptr<PendingResult>& result) {
  std::lock_guard lock(mutex_);
  if (stopped_) {
    result->abandon(failure(stoppedError()));
    return;
  }
  std::erase_if(calls_, [](const auto& pending) { return pending.expired(); });
  calls_.insert(result);
}

Task<Provider::Turn> Provider::take(CallSlots& slots) {
  auto taken = slots.take();
  co_await taken;
  co_return Turn(slots);
}

template <typename T, typename Make>
Task<T> Provider::call(CallSlots& slots, std::optional<std::chrono::milliseconds> limit,
                       Make make) {
  auto taken = take(slots);
  auto turn = co_await std::move(taken);
  auto made = callIn<T>(std::move(turn), limit, std::move(make));
  co_return co_await std::move(made);
}

template <typename T, typename Make>
Task<T> Provider::callIn(Turn, std::optional<std::chrono::milliseconds> limit, Make make) {
  const Extension extension = requireExtension();
  const auto abandonment = std::make_shared<Abandonment>();
  auto pending = std::make_shared<OneShot<T>>(loop_, abandonment);
  enroll(pending);
  std::shared_ptr<const CallAnswers> answers;
  try {
    const AbandonmentScope scope(abandonment);
    if (watchAnswers_) answers = watchAnswers_();
    make(*extension, asExtensionHoldsIt(pending));
  } catch (...) {
    pending->reject(failure(caughtError()));
  }
  try {
    if (!limit) {
      auto result = OneShot<T>::result(std::move(pending));
      co_return co_await std::move(result);
    }
    auto result = async::withTimeout(loop_, *limit, failure({NSURLErrorDomain, NSURLErrorTimedOut}),
                                     std::move(pending));
    co_return co_await std::move(result);
  } catch (const NSError& error) {
    throw told(error, answers.get());
  }
}

Task<std::vector<NSFileProviderItemPtr>> Provider::list(NSFileProviderItemIdentifier container) {
  requireAskable("a listing", container);
  try {
    auto first = listOnce(container);
    co_return co_await std::move(first);
  } catch (const NSError& error) {
    const auto expired = static_cast<std::int64_t>(NSFileProviderErrorCode::syncAnchorExpired);
    if (!error.is(NSFileProviderErrorDomain, expired)) throw;
  }
  auto again = listOnce(container);
  co_return co_await std::move(again);
}

Task<std::vector<NSFileProviderItemPtr>> Provider::listOnce(
    NSFileProviderItemIdentifier container) {
  std::optional<NSFileProviderPage> page = NSFileProviderPage(kFirstPage);
  std::vector<NSFileProviderItemPtr> items;
  while (page) {
    auto make = [container, from = *page](NSFileProviderReplicatedExtension& extension,
                                          const std::shared_ptr<OneShot<Page>>& result) {
      auto enumerator = extension.enumerator(container, {});
      enumerator->enumerateItems(std::make_shared<PageObserver>(result, enumerator), from);
    };
    auto request = call<Page>(metadata_, kMetadataLimit, std::move(make));
    Page read = co_await std::move(request);
    if (items.empty()) {
      items = std::move(read.items);
    } else {
      items.insert(items.end(), read.items.begin(), read.items.end());
    }
    page = std::move(read.next);
  }
  co_return items;
}

Task<NSFileProviderItemPtr> Provider::item(NSFileProviderItemIdentifier identifier) {
  requireAskable("an item", identifier);
  auto make = [identifier](NSFileProviderReplicatedExtension& extension,
                           const std::shared_ptr<OneShot<NSFileProviderItemPtr>>& result) {
    extension.item(identifier, {},
                   [result](NSFileProviderItemPtr item, const std::optional<NSError>& error) {
                     if (error || !item) {
                       result->reject(failure(orNoSuchItem(error)));
                     } else {
                       result->resolve(std::move(item));
                     }
                   });
  };
  auto request = call<NSFileProviderItemPtr>(metadata_, kMetadataLimit, std::move(make));
  co_return co_await std::move(request);
}

Task<FetchedFile> Provider::fetch(NSFileProviderItemIdentifier identifier, std::int64_t size,
                                  std::function<void()> begun) {
  requireItem("a file", identifier);
  auto make = [identifier, begun = std::move(begun)](
                  NSFileProviderReplicatedExtension& extension,
                  const std::shared_ptr<OneShot<FetchedFile>>& result) {
    if (begun) begun();
    extension.fetchContents(identifier, std::nullopt, {},
                            [result](const std::optional<NSURL>& url, NSFileProviderItemPtr item,
                                     const std::optional<NSError>& error) {
                              if (error || !url || !item) {
                                result->reject(failure(orNoSuchItem(error)));
                              } else if (!result->resolve({url->path(), std::move(item)})) {
                                // Nothing waits any more.
                                ::unlink(url->path().c_str());
                              }
                            });
  };
  auto request = call<FetchedFile>(slotsFor(size), std::nullopt, std::move(make));
  co_return co_await std::move(request);
}

std::shared_ptr<void> Provider::excuse(std::int64_t size) {
  CallSlots& slots = slotsFor(size);
  if (slots.excused() >= kMostExcused) return nullptr;
  return std::make_shared<CallSlots::Excuse>(slots);
}

Task<WrittenItem> Provider::create(Turn turn, NSFileProviderItemPtr basedOnTemplate,
                                   NSFileProviderItemFields fields,
                                   std::optional<std::string> contents,
                                   NSFileProviderCreateItemOptions options) {
  requirePlace("a new item", *basedOnTemplate);
  auto make = [basedOnTemplate, fields, url = fileURL(contents), options](
                  NSFileProviderReplicatedExtension& extension,
                  const std::shared_ptr<OneShot<WrittenItem>>& result) {
    extension.createItem(basedOnTemplate, fields, url, options, {}, written(result));
  };
  auto request = callIn<WrittenItem>(std::move(turn), limitOf(contents), std::move(make));
  co_return co_await std::move(request);
}

Task<WrittenItem> Provider::modify(Turn turn, NSFileProviderItemPtr item,
                                   NSFileProviderItemVersion baseVersion,
                                   NSFileProviderItemFields changedFields,
                                   std::optional<std::string> contents) {
  requireItem("a change", item->itemIdentifier());
  requirePlace("a change", *item);
  auto make = [item, baseVersion, changedFields, url = fileURL(contents)](
                  NSFileProviderReplicatedExtension& extension,
                  const std::shared_ptr<OneShot<WrittenItem>>& result) {
    extension.modifyItem(item, baseVersion, changedFields, url, 0, {}, written(result));
  };
  auto request = callIn<WrittenItem>(std::move(turn), limitOf(contents), std::move(make));
  co_return co_await std::move(request);
}

Task<void> Provider::remove(Turn turn, NSFileProviderItemIdentifier identifier,
                            NSFileProviderItemVersion baseVersion, bool recursive) {
  requireItem("a removal", identifier);
  auto make = [identifier, baseVersion, recursive](NSFileProviderReplicatedExtension& extension,
                                                   const std::shared_ptr<OneShot<void>>& result) {
    extension.deleteItem(identifier, baseVersion,
                         recursive ? NSFileProviderDeleteItemOption::recursive : 0, {},
                         [result](const std::optional<NSError>& error) {
                           if (error) {
                             result->reject(failure(*error));
                           } else {
                             result->resolve();
                           }
                         });
  };
  auto request = callIn<void>(std::move(turn), kMetadataLimit, std::move(make));
  co_await std::move(request);
}

}  // namespace kestrowan::replica::remote
