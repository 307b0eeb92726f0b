#pragma once

#include <memory>
#include <string_view>

#include "platform/base/OneShot.h"
#include "platform/foundation/NSError.h"
#include "platform/network/NSURLResponse.h"

namespace kestrowan {

/// Where the body of one response goes, and who is told how the transfer ended. Called on the
/// transfer thread only, save that `fail` may come from any thread before `open`.
class CurlBodySink {
 public:
  virtual ~CurlBodySink() = default;

  /// Whether the body does not matter, so that the status counts once the head is whole.
  virtual bool ignoresBody() const { return false; }

  /// Of the file in which the body is gathered, once it is open; -1 where there is none.
  virtual int descriptor() const { return -1; }

  /// Comes before the request is sent. Throws `NSError` when there is no room for a body.
  virtual void open() {}
  /// Takes `data` whole, or nothing of it (false) when it must wait: whoever reads the sink then
  /// asks the engine to go on. Throws `NSError` when it cannot be stored.
  virtual bool write(std::string_view data) = 0;
  /// The whole response arrived. Throws `NSError` when the body could not be kept; `fail` follows.
  virtual void finish(std::shared_ptr<const NSURLResponse> response) = 0;
  virtual void fail(const NSError& error) noexcept = 0;
};

/// Throws the body away and passes on the response.
class CurlDiscardingSink : public CurlBodySink {
 public:
  using Result = OneShot<std::shared_ptr<const NSURLResponse>>;

  explicit CurlDiscardingSink(std::shared_ptr<Result> result) : result_(std::move(result)) {}

  bool ignoresBody() const override { return true; }
  bool write(std::string_view) override { return true; }
  void finish(std::shared_ptr<const NSURLResponse> response) override {
    result_->resolve(std::move(response));
  }
  void fail(const NSError& error) noexcept override {
    result_->reject(std::make_exception_ptr(error));
  }

 private:
  std::shared_ptr<Result> result_;
};

}  // namespace kestrowan
