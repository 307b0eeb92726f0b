#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"

namespace kestrowan::test {

/// An enumerator that remembers its last call and answers nothing by itself.
class FakeEnumerator : public NSFileProviderEnumerator {
 public:
  void invalidate() override { ++invalidations; }
  void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                      NSFileProviderPage startingAtPage) override {
    itemObserver = std::move(observer);
    page = std::move(startingAtPage);
  }
  void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                        NSFileProviderSyncAnchor fromSyncAnchor) override {
    changeObserver = std::move(observer);
    anchor = std::move(fromSyncAnchor);
  }
  void currentSyncAnchor(
      std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) override {
    anchorCompletion = std::move(completionHandler);
  }

  int invalidations = 0;
  std::shared_ptr<NSFileProviderEnumerationObserver> itemObserver;
  std::shared_ptr<NSFileProviderChangeObserver> changeObserver;
  std::optional<NSFileProviderPage> page;
  std::optional<NSFileProviderSyncAnchor> anchor;
  std::function<void(std::optional<NSFileProviderSyncAnchor>)> anchorCompletion;
};

/// A provider that remembers the arguments of its last call and completes when the test does.
class FakeExtension : public NSFileProviderReplicatedExtension {
 public:
  void invalidate() override { ++invalidations; }

  std::shared_ptr<NSFileProviderEnumerator> enumerator(
      const NSFileProviderItemIdentifier& forContainer, const NSFileProviderRequest&) override {
    identifier = forContainer;
    if (enumeratorFailure) throw *enumeratorFailure;
    return madeEnumerator;
  }

  std::shared_ptr<NSProgress> item(const NSFileProviderItemIdentifier& forIdentifier,
                                   const NSFileProviderRequest&,
                                   ItemCompletion completionHandler) override {
    identifier = forIdentifier;
    itemCompletion = std::move(completionHandler);
    return progress;
  }

  std::shared_ptr<NSProgress> fetchContents(
      const NSFileProviderItemIdentifier& forIdentifier,
      const std::optional<NSFileProviderItemVersion>& requestedVersion,
      const NSFileProviderRequest&, FetchCompletion completionHandler) override {
    identifier = forIdentifier;
    version = requestedVersion;
    if (fetchAtOnce) {
      progress->setCompletedUnitCount(100);
      completionHandler(NSURL::fileURLWithPath("/tmp/at once"), nullptr, std::nullopt);
    } else {
      fetchCompletion = std::move(completionHandler);
    }
    return progress;
  }

  std::shared_ptr<NSProgress> createItem(NSFileProviderItemPtr basedOnTemplate,
                                         NSFileProviderItemFields givenFields,
                                         std::optional<NSURL> givenContents,
                                         NSFileProviderCreateItemOptions givenOptions,
                                         const NSFileProviderRequest&,
                                         WriteCompletion completionHandler) override {
    givenItem = std::move(basedOnTemplate);
    fields = givenFields;
    contents = std::move(givenContents);
    options = givenOptions;
    writeCompletion = std::move(completionHandler);
    return progress;
  }

  std::shared_ptr<NSProgress> modifyItem(NSFileProviderItemPtr item,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderItemFields changedFields,
                                         std::optional<NSURL> givenContents,
                                         NSFileProviderModifyItemOptions givenOptions,
                                         const NSFileProviderRequest&,
                                         WriteCompletion completionHandler) override {
    givenItem = std::move(item);
    version = baseVersion;
    fields = changedFields;
    contents = std::move(givenContents);
    options = givenOptions;
    writeCompletion = std::move(completionHandler);
    return progress;
  }

  std::shared_ptr<NSProgress> deleteItem(const NSFileProviderItemIdentifier& givenIdentifier,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderDeleteItemOptions givenOptions,
                                         const NSFileProviderRequest&,
                                         DeleteCompletion completionHandler) override {
    identifier = givenIdentifier;
    version = baseVersion;
    options = givenOptions;
    deleteCompletion = std::move(completionHandler);
    return progress;
  }

  // What it answers with.
  std::shared_ptr<NSProgress> progress = std::make_shared<NSProgress>();
  std::shared_ptr<NSFileProviderEnumerator> madeEnumerator;
  std::optional<NSError> enumeratorFailure;
  bool fetchAtOnce = false;

  // What it was called with.
  int invalidations = 0;
  std::optional<NSFileProviderItemIdentifier> identifier;
  std::optional<NSFileProviderItemVersion> version;
  NSFileProviderItemPtr givenItem;
  NSFileProviderItemFields fields = 0;
  std::uint64_t options = 0;
  std::optional<NSURL> contents;

  ItemCompletion itemCompletion;
  FetchCompletion fetchCompletion;
  WriteCompletion writeCompletion;
  DeleteCompletion deleteCompletion;
};

}  // namespace kestrowan::test
