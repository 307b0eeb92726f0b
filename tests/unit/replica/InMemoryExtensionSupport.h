#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/fileprovider/NSFileProviderError.h"
#include "support/InMemoryExtension.h"
#include "support/MemoryItem.h"
#include "support/SimulatedLoop.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {

inline const std::string kRoot(NSFileProviderRootContainerItemIdentifier);

inline std::string readFile(const std::string& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

/// What a call was answered with.
struct Result {
  int completions = 0;
  NSFileProviderItemPtr item;
  std::vector<NSFileProviderItemPtr> items;
  std::optional<NSFileProviderPage> nextPage;
  std::optional<NSURL> file;
  std::optional<NSError> error;

  bool failed(std::string_view domain, std::int64_t code) const {
    return completions == 1 && error && error->is(domain, code);
  }
  bool isUnreachable() const { return failed(NSFileProviderErrorDomain, -1004); }
  bool succeeded() const { return completions == 1 && !error; }
};

/// Puts a listing into a result.
class ResultObserver : public NSFileProviderEnumerationObserver {
 public:
  explicit ResultObserver(std::shared_ptr<Result> result) : result_(std::move(result)) {}

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    result_->items.insert(result_->items.end(), items.begin(), items.end());
  }
  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) override {
    ++result_->completions;
    result_->nextPage = std::move(nextPage);
  }
  void finishEnumeratingWithError(const NSError& error) override {
    ++result_->completions;
    result_->error = error;
  }

 private:
  const std::shared_ptr<Result> result_;
};

/// A provider in memory on a simulated loop, and its calls as functions that give their results.
class InMemoryExtensionFixture : public ::testing::Test {
 protected:
  using ResultPtr = std::shared_ptr<Result>;

  InMemoryExtensionFixture() { start({}); }

  void start(InMemoryOptions options) {
    extension_ = std::make_shared<InMemoryExtension>(loop_, directory_.path(), server_, options);
  }

  static WriteCompletion forWrite(const ResultPtr& result) {
    return [result](NSFileProviderItemPtr item, NSFileProviderItemFields fields, bool fetch,
                    std::optional<NSError> error) {
      ++result->completions;
      EXPECT_EQ(fields, 0u);
      EXPECT_FALSE(fetch);
      result->item = std::move(item);
      result->error = std::move(error);
    };
  }

  ResultPtr list(const std::string& container, const std::string& page = "") {
    auto result = std::make_shared<Result>();
    extension_->enumerator(container, {})
        ->enumerateItems(std::make_shared<ResultObserver>(result), page);
    return result;
  }
  ResultPtr lookUp(const std::string& identifier) {
    auto result = std::make_shared<Result>();
    extension_->item(identifier, {}, [result](auto item, auto error) {
      ++result->completions;
      result->item = std::move(item);
      result->error = std::move(error);
    });
    return result;
  }
  ResultPtr fetch(const std::string& identifier) {
    auto result = std::make_shared<Result>();
    progress_ = extension_->fetchContents(identifier, std::nullopt, {},
                                          [result](auto file, auto item, auto error) {
                                            ++result->completions;
                                            result->file = std::move(file);
                                            result->item = std::move(item);
                                            result->error = std::move(error);
                                          });
    return result;
  }
  ResultPtr create(const std::string& parent, const std::string& name,
                   std::optional<std::string> bytes) {
    auto result = std::make_shared<Result>();
    extension_->createItem(itemOf("", parent, name, !bytes), 0,
                           bytes ? std::optional(localFile(*bytes)) : std::nullopt, 0, {},
                           forWrite(result));
    return result;
  }
  ResultPtr modify(const std::string& identifier, const std::string& parent,
                   const std::string& name, NSFileProviderItemFields fields,
                   std::optional<NSURL> contents = std::nullopt, bool isFolder = false) {
    auto result = std::make_shared<Result>();
    extension_->modifyItem(itemOf(identifier, parent, name, isFolder), {}, fields, contents, 0, {},
                           forWrite(result));
    return result;
  }
  ResultPtr remove(const std::string& identifier) {
    auto result = std::make_shared<Result>();
    extension_->deleteItem(identifier, {}, 0, {}, [result](auto error) {
      ++result->completions;
      result->error = std::move(error);
    });
    return result;
  }
  ResultPtr done(ResultPtr result) {
    loop_.runUntilIdle();
    return result;
  }

  static std::shared_ptr<MemoryItem> itemOf(std::string identifier, std::string parent,
                                            std::string name, bool isFolder) {
    auto item = std::make_shared<MemoryItem>();
    item->identifier = std::move(identifier);
    item->parent = std::move(parent);
    item->name = std::move(name);
    item->isFolder = isFolder;
    return item;
  }
  NSURL localFile(const std::string& bytes) {
    const auto path = directory_.path() + "/local" + std::to_string(++files_);
    std::ofstream(path, std::ios::binary) << bytes;
    return NSURL::fileURLWithPath(path);
  }
  void failNext(Fault fault) {
    extension_->setFaults([this, fault = std::move(fault)](const Call&) {
      extension_->setFaults({});
      return fault;
    });
  }

  TemporaryDirectory directory_;
  SimulatedLoop loop_;
  std::shared_ptr<MemoryServer> server_ =
      std::make_shared<MemoryServer>([this] { return loop_.wallClock() / 1000; });
  std::shared_ptr<InMemoryExtension> extension_;
  std::shared_ptr<NSProgress> progress_;
  int files_ = 0;
};

inline std::vector<std::string> identifiers(const std::vector<NSFileProviderItemPtr>& items) {
  std::vector<std::string> result;
  for (const auto& item : items) result.push_back(item->itemIdentifier());
  return result;
}

}  // namespace kestrowan::test
