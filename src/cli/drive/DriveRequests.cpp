#include <utility>

#include "cli/JSONForms.h"
#include "cli/drive/DriveArguments.h"
#include "cli/drive/DriveReply.h"
#include "cli/drive/Driver.h"

namespace kestrowan::cli {

class Driver::ItemObserver : public NSFileProviderEnumerationObserver {
 public:
  explicit ItemObserver(std::shared_ptr<Reply> reply) : reply_(std::move(reply)) {}

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    items_.insert(items_.end(), items.begin(), items.end());
    ++pages_;
  }
  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) override {
    finish(std::nullopt, nextPage);
  }
  void finishEnumeratingWithError(const NSError& error) override { finish(error, std::nullopt); }

 private:
  void finish(const std::optional<NSError>& error,
              const std::optional<NSFileProviderPage>& nextPage) {
    reply_->complete(error,
                     {{"items", jsonForm(items_)}, {"pages", pages_}, {"nextPage", nextPage}});
  }

  const std::shared_ptr<Reply> reply_;
  std::vector<NSFileProviderItemPtr> items_;
  std::int64_t pages_ = 0;
};

class Driver::ChangeObserver : public NSFileProviderChangeObserver {
 public:
  explicit ChangeObserver(std::shared_ptr<Reply> reply) : reply_(std::move(reply)) {}

  void didUpdateItems(std::vector<NSFileProviderItemPtr>) override {}
  void didDeleteItems(std::vector<NSFileProviderItemIdentifier>) override {}
  void finishEnumeratingChanges(NSFileProviderSyncAnchor, bool) override {
    reply_->complete(std::nullopt);
  }
  void finishEnumeratingWithError(const NSError& error) override { reply_->complete(error); }

 private:
  const std::shared_ptr<Reply> reply_;
};

namespace {

/// Both kinds of write reply alike.
template <typename Reply>
WriteCompletion writeCompletion(std::shared_ptr<Reply> reply) {
  return [reply = std::move(reply)](NSFileProviderItemPtr item, NSFileProviderItemFields remaining,
                                    bool shouldFetchContent, std::optional<NSError> error) {
    reply->complete(error, {{"item", jsonForm(item)},
                            {"remainingFields", fieldNames(remaining)},
                            {"shouldFetchContent", shouldFetchContent}});
  };
}

}  // namespace

void Driver::enumerateItems(const JSONValue& request, std::shared_ptr<Reply> reply) {
  const auto container = textArgument(request, "identifier");
  const auto page = optionalTextArgument(request, "page").value_or("");
  extension_->enumerator(container, {})
      ->enumerateItems(std::make_shared<ItemObserver>(reply), page);
  reply->returned();
}

void Driver::enumerateChanges(const JSONValue& request, std::shared_ptr<Reply> reply) {
  const auto container = textArgument(request, "identifier");
  const auto anchor = textArgument(request, "anchor");
  extension_->enumerator(container, {})
      ->enumerateChanges(std::make_shared<ChangeObserver>(reply), anchor);
  reply->returned();
}

void Driver::currentSyncAnchor(const JSONValue& request, std::shared_ptr<Reply> reply) {
  extension_->enumerator(textArgument(request, "identifier"), {})
      ->currentSyncAnchor([reply](std::optional<NSFileProviderSyncAnchor> anchor) {
        reply->complete(std::nullopt, {{"anchor", anchor}});
      });
  reply->returned();
}

void Driver::item(const JSONValue& request, std::shared_ptr<Reply> reply) {
  auto progress =
      extension_->item(textArgument(request, "identifier"), {},
                       [reply](NSFileProviderItemPtr item, std::optional<NSError> error) {
                         reply->complete(error, {{"item", jsonForm(item)}});
                       });
  reply->returned(std::move(progress));
}

void Driver::fetchContents(const JSONValue& request, std::shared_ptr<Reply> reply) {
  auto progress = extension_->fetchContents(
      textArgument(request, "identifier"), std::nullopt, {},
      [reply](std::optional<NSURL> file, NSFileProviderItemPtr item, std::optional<NSError> error) {
        reply->complete(error, {{"url", file ? JSONValue(file->path()) : JSONValue()},
                                {"item", jsonForm(item)}});
      });
  reply->returned(std::move(progress));
}

void Driver::createItem(const JSONValue& request, std::shared_ptr<Reply> reply) {
  auto progress =
      extension_->createItem(itemArgument(request, false), changedFieldsArgument(request),
                             contentsArgument(request), 0, {}, writeCompletion(reply));
  reply->returned(std::move(progress));
}

void Driver::modifyItem(const JSONValue& request, std::shared_ptr<Reply> reply) {
  auto progress = extension_->modifyItem(itemArgument(request, true), baseVersionArgument(request),
                                         changedFieldsArgument(request), contentsArgument(request),
                                         0, {}, writeCompletion(reply));
  reply->returned(std::move(progress));
}

void Driver::deleteItem(const JSONValue& request, std::shared_ptr<Reply> reply) {
  auto progress =
      extension_->deleteItem(textArgument(request, "identifier"), baseVersionArgument(request),
                             deleteOptionsArgument(request), {},
                             [reply](std::optional<NSError> error) { reply->complete(error); });
  reply->returned(std::move(progress));
}

void Driver::invalidate(const JSONValue&, std::shared_ptr<Reply> reply) {
  extension_->invalidate();
  reply->complete(std::nullopt);
  reply->returned();
}

}  // namespace kestrowan::cli
