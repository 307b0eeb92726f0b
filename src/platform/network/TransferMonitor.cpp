#include "platform/network/TransferMonitor.h"

#include <algorithm>
#include <utility>

namespace kestrowan {

TransferMonitor::Entry::Entry(TransferMonitor& monitor, TransferStatus status)
    : monitor_(monitor), status_(std::move(status)) {
  std::lock_guard lock(monitor_.mutex_);
  monitor_.entries_.insert(this);
}

TransferMonitor::Entry::~Entry() {
  std::lock_guard lock(monitor_.mutex_);
  monitor_.entries_.erase(this);
}

void TransferMonitor::Entry::sent(std::int64_t bytes) {
  std::lock_guard lock(monitor_.mutex_);
  status_.bytesSent = bytes;
}

void TransferMonitor::Entry::received(std::int64_t bytes) {
  std::lock_guard lock(monitor_.mutex_);
  status_.bytesReceived = bytes;
  monitor_.stirredAt_ = Clock::now();
}

void TransferMonitor::Entry::expectToReceive(std::int64_t bytes) {
  std::lock_guard lock(monitor_.mutex_);
  status_.bytesExpectedToReceive = bytes;
}

void TransferMonitor::Entry::moved(std::int64_t bytes) {
  std::lock_guard lock(monitor_.mutex_);
  if (bytes > bytesMoved_) monitor_.stirredAt_ = Clock::now();
  monitor_.bytesMoved_ += std::max<std::int64_t>(bytes - bytesMoved_, 0);
  bytesMoved_ = std::max(bytesMoved_, bytes);
}

void TransferMonitor::Entry::stirred() {
  std::lock_guard lock(monitor_.mutex_);
  monitor_.stirredAt_ = Clock::now();
}

TransferMonitor& TransferMonitor::shared() {
  // Never destroyed: a transfer may end after the static objects of the program.
  static auto* monitor = new TransferMonitor;
  return *monitor;
}

std::vector<TransferStatus> TransferMonitor::transfers() const {
  std::lock_guard lock(mutex_);
  std::vector<TransferStatus> statuses;
  statuses.reserve(entries_.size());
  for (const auto* entry : entries_) statuses.push_back(entry->status_);
  return statuses;
}

std::chrono::seconds TransferMonitor::silence() const {
  std::lock_guard lock(mutex_);
  const auto now = Clock::now();
  auto since = now;
  for (const auto* entry : entries_) since = std::min(since, entry->begunAt_);
  since = std::min(now, std::max(since, stirredAt_));
  return std::chrono::duration_cast<std::chrono::seconds>(now - since);
}

std::int64_t TransferMonitor::bytesMoved() const {
  std::lock_guard lock(mutex_);
  return bytesMoved_;
}

}  // namespace kestrowan
