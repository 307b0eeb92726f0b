#pragma once

#include <coroutine>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/linux/CurlBodySink.h"

namespace kestrowan {

/// Carries one body from the transfer thread to the coroutine that reads it, in pieces of 64 KiB
/// or more (the last one may be smaller), and holds at most about 1 MiB. One writer, one reader.
class CurlBodyPipe : public CurlBodySink {
 public:
  /// What the reader found.
  struct Taken {
    /// The writer waits: the reader must have the transfer resumed.
    bool wasFull = false;
    /// The transfer has ended and nothing more comes.
    bool ended = false;
  };

  bool write(std::string_view data) override;
  void finish(std::shared_ptr<const NSURLResponse> response) override;
  void fail(const NSError& error) noexcept override;

  /// Makes `reader` the coroutine that the executor resumes once there is something to take;
  /// false when there is already, and the reader should go on itself.
  bool wait(std::coroutine_handle<> reader);
  /// Moves what has gathered into `piece`, whose old contents are dropped. Throws the error of a
  /// failed transfer, and then drops what has gathered.
  Taken take(std::string& piece);
  /// The response, after the end.
  std::shared_ptr<const NSURLResponse> response() const { return response_; }

 private:
  bool isWorthTaking() const;
  void wake(std::unique_lock<std::mutex>& lock) noexcept;

  std::mutex mutex_;
  std::string gathered_;
  bool full_ = false;
  bool ended_ = false;
  std::coroutine_handle<> reader_;
  std::shared_ptr<const NSURLResponse> response_;
  std::exception_ptr error_;
};

}  // namespace kestrowan
