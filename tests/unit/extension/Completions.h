#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "extension/FileProviderExtension.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "support/Fixture.h"

namespace kestrowan::test {

/// What a completion handler was given; a second call fails the test.
struct Completion {
  NSFileProviderItemPtr item;
  std::optional<NSURL> url;
  NSFileProviderItemFields remainingFields = ~NSFileProviderItemFields{0};
  bool shouldFetchContent = true;
  std::optional<NSError> error;
  /// Whether it came before the entry point returned, on the calling thread.
  bool synchronous = false;
  std::shared_ptr<NSProgress> progress;
};

/// Waits for the one call of a completion handler.
class CompletionWaiter {
 public:
  ItemCompletion forItem() {
    return [state = state_](NSFileProviderItemPtr item, std::optional<NSError> error) {
      state->complete({.item = std::move(item), .error = std::move(error)});
    };
  }
  FetchCompletion forFetch() {
    return [state = state_](std::optional<NSURL> url, NSFileProviderItemPtr item,
                            std::optional<NSError> error) {
      state->complete({.item = std::move(item), .url = std::move(url), .error = std::move(error)});
    };
  }
  WriteCompletion forWrite() {
    return [state = state_](NSFileProviderItemPtr item, NSFileProviderItemFields fields,
                            bool shouldFetchContent, std::optional<NSError> error) {
      state->complete({.item = std::move(item),
                       .remainingFields = fields,
                       .shouldFetchContent = shouldFetchContent,
                       .error = std::move(error)});
    };
  }
  DeleteCompletion forDelete() {
    return [state = state_](std::optional<NSError> error) {
      state->complete({.error = std::move(error)});
    };
  }

  /// `progress` is what the entry point returned.
  Completion wait(std::shared_ptr<NSProgress> progress) {
    auto future = state_->promise.get_future();
    const bool synchronous = state_->calledBy == std::this_thread::get_id();
    Completion completion = future.get();
    completion.synchronous = synchronous;
    completion.progress = std::move(progress);
    return completion;
  }

 private:
  struct State {
    void complete(Completion completion) {
      calledBy = std::this_thread::get_id();
      promise.set_value(std::move(completion));  // throws when called twice
    }
    std::atomic<std::thread::id> calledBy;
    std::promise<Completion> promise;
  };

  std::shared_ptr<State> state_ = std::make_shared<State>();
};

/// A host's template; one without a type does not say what it is.
class Template : public NSFileProviderItem {
 public:
  Template(std::string identifier, std::string parent, std::string name,
           std::optional<UTType> type = std::nullopt)
      : identifier_(std::move(identifier)),
        parent_(std::move(parent)),
        name_(std::move(name)),
        type_(std::move(type)) {}

  NSFileProviderItemIdentifier itemIdentifier() const override { return identifier_; }
  NSFileProviderItemIdentifier parentItemIdentifier() const override { return parent_; }
  std::string filename() const override { return name_; }
  std::optional<UTType> contentType() const override { return type_; }
  NSFileProviderItemCapabilities capabilities() const override { return 0; }
  std::optional<std::int64_t> documentSize() const override { return std::nullopt; }
  std::optional<NSDate> contentModificationDate() const override { return std::nullopt; }
  NSFileProviderItemVersion itemVersion() const override { return {}; }

 private:
  const std::string identifier_, parent_, name_;
  const std::optional<UTType> type_;
};

/// An extension on a fake network.
class RequestFixture : public ExtensionFixture {
 protected:
  static FileProviderExtension makeExtension() {
    return FileProviderExtension(NSFileProviderDomain{"d", "D"});
  }

  NSURL localFile(const std::string& text) const {
    const std::string path = temporary() + "/local";
    std::ofstream(path, std::ios::binary) << text;
    return NSURL::fileURLWithPath(path);
  }

  static void expectRefused(const Completion& completion, const NSError& error) {
    EXPECT_TRUE(completion.synchronous);
    ASSERT_TRUE(completion.error);
    EXPECT_EQ(completion.error->domain(), error.domain());
    EXPECT_EQ(completion.error->code(), error.code());
    EXPECT_TRUE(completion.error->userInfo().empty());
  }

  static void expectPlainProgress(const Completion& completion) {
    EXPECT_EQ(completion.progress->totalUnitCount(), 0);
    EXPECT_EQ(completion.progress->completedUnitCount(), 0);
  }

  static const NSError& notAuthenticated() {
    static const NSError error = NSFileProviderError(NSFileProviderErrorCode::notAuthenticated);
    return error;
  }

  static std::string logLine(const std::string& message) {
    return "com.kestrowan.app.FileProvider:ext " + message;
  }

  const std::string root_{NSFileProviderRootContainerItemIdentifier};
};

}  // namespace kestrowan::test
