#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace kestrowan::cli {

/// One line on the terminal behind standard error that is written over and over. Does nothing when
/// standard error is no terminal. Used by one thread.
class ProgressLine {
 public:
  explicit ProgressLine(bool wanted);
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  ~ProgressLine() { clear(); }

  bool isShown() const { return shown_; }
  void show(std::string_view text);
  /// Leaves the line empty, so that other text can follow.
  void clear();

 private:
  const bool shown_;
  bool dirty_ = false;
};

/// Shows how far the transfers of one HTTP method have come, several times a second, while it
/// lives; bytes and bytes a second. Does nothing when standard error is no terminal.
class TransferProgress {
 public:
  TransferProgress(bool wanted, std::string httpMethod, std::string label);
  TransferProgress(const TransferProgress&) = delete;
  TransferProgress& operator=(const TransferProgress&) = delete;
  ~TransferProgress();

 private:
  void run();

  const std::string httpMethod_;
  const std::string label_;
  ProgressLine line_;
  std::mutex mutex_;
  std::condition_variable stop_;
  bool stopping_ = false;
  std::thread thread_;  // only when the line is shown
};

}  // namespace kestrowan::cli
