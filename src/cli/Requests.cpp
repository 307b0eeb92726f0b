#include "cli/Requests.h"

#include <memory>
#include <utility>

namespace kestrowan::cli {

namespace {

template <typename T>
using Promise = std::shared_ptr<std::promise<T>>;

class ListingObserver : public NSFileProviderEnumerationObserver {
 public:
  std::future<std::vector<NSFileProviderItemPtr>> future() { return promise_.get_future(); }

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    items_.insert(items_.end(), std::make_move_iterator(items.begin()),
                  std::make_move_iterator(items.end()));
  }
  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage>) override {
    promise_.set_value(std::move(items_));
  }
  void finishEnumeratingWithError(const NSError& error) override {
    promise_.set_exception(std::make_exception_ptr(error));
  }

 private:
  std::vector<NSFileProviderItemPtr> items_;
  std::promise<std::vector<NSFileProviderItemPtr>> promise_;
};

template <typename T>
void settle(std::promise<T>& promise, const std::optional<NSError>& error, T value) {
  if (error) {
    promise.set_exception(std::make_exception_ptr(*error));
  } else {
    promise.set_value(std::move(value));
  }
}

WriteCompletion settling(Promise<NSFileProviderItemPtr> promise) {
  return [promise = std::move(promise)](NSFileProviderItemPtr item, NSFileProviderItemFields, bool,
                                        std::optional<NSError> error) {
    settle(*promise, error, std::move(item));
  };
}

}  // namespace

Request<std::vector<NSFileProviderItemPtr>> listFolder(NSFileProviderReplicatedExtension& extension,
                                                       const NSFileProviderItemIdentifier& folder) {
  const auto caller = std::make_shared<Abandonment>();
  const AbandonmentScope scope(caller);
  auto observer = std::make_shared<ListingObserver>();
  auto future = observer->future();
  extension.enumerator(folder, {})->enumerateItems(observer, {});
  return {std::move(future), caller};
}

Request<NSFileProviderItemPtr> lookUp(NSFileProviderReplicatedExtension& extension,
                                      const NSFileProviderItemIdentifier& identifier) {
  const auto caller = std::make_shared<Abandonment>();
  const AbandonmentScope scope(caller);
  auto promise = std::make_shared<std::promise<NSFileProviderItemPtr>>();
  extension.item(identifier, {},
                 [promise](NSFileProviderItemPtr item, std::optional<NSError> error) {
                   settle(*promise, error, std::move(item));
                 });
  return {promise->get_future(), caller};
}

Request<FetchedContents> fetch(NSFileProviderReplicatedExtension& extension,
                               const NSFileProviderItemIdentifier& identifier) {
  const auto caller = std::make_shared<Abandonment>();
  const AbandonmentScope scope(caller);
  auto promise = std::make_shared<std::promise<FetchedContents>>();
  extension.fetchContents(identifier, std::nullopt, {},
                          [promise](std::optional<NSURL> file, NSFileProviderItemPtr item,
                                    std::optional<NSError> error) {
                            if (error) {
                              promise->set_exception(std::make_exception_ptr(*error));
                            } else {
                              promise->set_value({*std::move(file), std::move(item)});
                            }
                          });
  return {promise->get_future(), caller};
}

Request<NSFileProviderItemPtr> create(NSFileProviderReplicatedExtension& extension,
                                      NSFileProviderItemPtr basedOnTemplate,
                                      std::optional<NSURL> contents) {
  const auto caller = std::make_shared<Abandonment>();
  const AbandonmentScope scope(caller);
  auto promise = std::make_shared<std::promise<NSFileProviderItemPtr>>();
  extension.createItem(std::move(basedOnTemplate), NSFileProviderItemField::filename,
                       std::move(contents), 0, {}, settling(promise));
  return {promise->get_future(), caller};
}

Request<NSFileProviderItemPtr> modify(NSFileProviderReplicatedExtension& extension,
                                      NSFileProviderItemPtr item,
                                      NSFileProviderItemFields changedFields) {
  const auto caller = std::make_shared<Abandonment>();
  const AbandonmentScope scope(caller);
  auto promise = std::make_shared<std::promise<NSFileProviderItemPtr>>();
  extension.modifyItem(std::move(item), {}, changedFields, std::nullopt, 0, {}, settling(promise));
  return {promise->get_future(), caller};
}

Request<void> remove(NSFileProviderReplicatedExtension& extension,
                     const NSFileProviderItemIdentifier& identifier, bool recursive) {
  const auto caller = std::make_shared<Abandonment>();
  const AbandonmentScope scope(caller);
  auto promise = std::make_shared<std::promise<void>>();
  extension.deleteItem(identifier, {}, recursive ? NSFileProviderDeleteItemOption::recursive : 0,
                       {}, [promise](std::optional<NSError> error) {
                         if (error) {
                           promise->set_exception(std::make_exception_ptr(*error));
                         } else {
                           promise->set_value();
                         }
                       });
  return {promise->get_future(), caller};
}

}  // namespace kestrowan::cli
