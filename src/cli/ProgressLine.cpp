#include "cli/ProgressLine.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "cli/Console.h"
#include "cli/ItemText.h"
#include "platform/base/Threads.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"
#include "platform/network/TransferMonitor.h"

namespace kestrowan::cli {

namespace {

constexpr std::chrono::milliseconds kInterval{200};

std::string progressText(std::int64_t done, std::optional<std::int64_t> expected, double seconds) {
  std::string text;
  if (expected && *expected > 0) text += std::to_string(done * 100 / *expected) + " %  ";
  text += byteText(done);
  if (expected) text += " of " + byteText(*expected);
  if (seconds > 0) {
    text += "  " + byteText(static_cast<std::int64_t>(static_cast<double>(done) / seconds)) + "/s";
  }
  return text;
}

}  // namespace

ProgressLine::ProgressLine(bool wanted) : shown_(wanted && standardErrorIsTerminal()) {}

void ProgressLine::show(std::string_view text) {
  if (!shown_) return;
  std::fprintf(stderr, "\r\033[K%.*s", static_cast<int>(text.size()), text.data());
  std::fflush(stderr);
  dirty_ = true;
}

void ProgressLine::clear() {
  if (!std::exchange(dirty_, false)) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

TransferProgress::TransferProgress(bool wanted, std::string httpMethod, std::string label)
    : httpMethod_(std::move(httpMethod)), label_(escapedForDisplay(label)), line_(wanted) {
  try {
    if (line_.isShown()) thread_ = startThread("the progress line", [this] { run(); });
  } catch (const NSError&) {
    // The transfer goes on without.
  }
}

TransferProgress::~TransferProgress() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stop_.notify_all();
  thread_.join();
}

void TransferProgress::run() {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock lock(mutex_);
  while (!stop_.wait_for(lock, kInterval, [this] { return stopping_; })) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    for (const auto& transfer : TransferMonitor::shared().transfers()) {
      if (transfer.httpMethod != httpMethod_) continue;
      const bool sends = transfer.bytesExpectedToSend.has_value();
      line_.show(
          label_ + "  " +
          progressText(sends ? transfer.bytesSent : transfer.bytesReceived,
                       sends ? transfer.bytesExpectedToSend : transfer.bytesExpectedToReceive,
                       elapsed.count()));
    }
  }
  line_.clear();
}

}  // namespace kestrowan::cli
