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
}

void TransferMonitor::Entry::expectToReceive(std::int64_t bytes) {
  std::lock_guard lock(monitor_.mutex_);
  status_.bytesExpectedToReceive = bytes;
}

void TransferMonitor::Entry::moved(std::int64_t bytes) {
  std::lock_guard lock(monitor_.mutex_);
  monitor_.bytesMoved_ += std::max<std::int64_t>(bytes - bytesMoved_, 0);
  bytesMoved_ = std::max(bytesMoved_, bytes);
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

std::int64_t TransferMonitor::bytesMoved() const {
  std::lock_guard lock(mutex_);
  return bytesMoved_;
}

}  // namespace kestrowan
